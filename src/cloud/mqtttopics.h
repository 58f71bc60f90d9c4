// The MQTT topics between the hub and the cloud agent, named from the hub's side: the hub
// subscribes to the first three and publishes on the last three.
#pragma once

namespace mqtttopics {

constexpr char kCommand[] = "zelo/command";             // cloud commands to the hub
constexpr char kReportAck[] = "zelo/report_ack";        // answers to the hub's reports
constexpr char kClientOut[] = "local/zelo_client_out";  // messages of the local agent
constexpr char kCommandAck[] = "zelo/command_ack";      // the hub's replies to commands
constexpr char kReport[] = "zelo/report";               // the hub's reports
constexpr char kClientIn[] = "local/zelo_client_in";    // the hub's requests to the local agent

}  // namespace mqtttopics
