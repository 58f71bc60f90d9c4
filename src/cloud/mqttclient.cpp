#include "cloud/mqttclient.h"

#include "core/log.h"

int InitMqtt() {
  TLOG(LOG_DEBUG) << "MQTT client is not part of this build yet, cloud commands are off";
  return 0;
}
