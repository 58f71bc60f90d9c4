// The MQTT client: connection to the local broker, cloud requests, replies and reports.
#pragma once

// Starts the MQTT client thread. 0 or -1.
int InitMqtt();
