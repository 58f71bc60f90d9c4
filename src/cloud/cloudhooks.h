// Cloud commands and answers that other subsystems handle; the MQTT router calls them on the
// MQTT thread with the whole message text. Each returns 0 or -1 and sends its own replies.
#pragma once

// Firmware update: "zeLO.ota", "zeLO.get_ota_state", "zeLO.get_ota_progress".
int ProcMsgzeloOta(const char* msg);
int ProcMsgGetOtaState(const char* msg);
int ProcMsgGetOtaProgress(const char* msg);
