// The credentials file that the cloud agent simulator writes from the hub's last acknowledged
// credential report and the board's device key and token, and that the viewer tool reads: what
// the app would get from the cloud.
//
// Text, one "name=value" line each, in this order, written atomically with mode 0600:
//   uid=<P2P uid>                     "p2p_id" of the report
//   password=<P2P password>           "p2p_password", six digits
//   public_key=<64 hex digits>        "p2p_dev_public_key": the hub's X25519 public key
//   checktoken=<hex>                  "p2p_checktoken": the device token in hexadecimal
//   device_key=<device key>           "key=" of the board's /etc/zelo/device.conf
//   device_token=<device token>       first line of the board's /etc/zelo/device.token
// Readers ignore unknown names and blank lines; a value runs to the end of its line.
#pragma once

#include <string>

namespace viewer {

struct Credentials {
  std::string uid;
  std::string password;
  std::string public_key;
  std::string checktoken;
  std::string device_key;
  std::string device_token;
};

// 0, or -1 when a value holds a line break or the file cannot be written.
int WriteCredentialsFile(const std::string& path, const Credentials& credentials);
// 0, or -1 when the file cannot be read or lacks uid, password or public_key.
int ReadCredentialsFile(const std::string& path, Credentials* credentials);

}  // namespace viewer
