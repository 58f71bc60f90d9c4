// Cloud commands and answers that other subsystems handle; the MQTT router calls them on the
// MQTT thread with the whole message text. Each returns 0 or -1 and sends its own replies.
#pragma once

// Alarm upload: an answer whose "result" is an object carries presigned upload addresses.
int ParseUploadUrl(const char* msg);
// Alarm upload: an answer with this report id arrived; when it matches the head of the alarm
// list, that alarm counts as acknowledged ("This is upload motion succeed ack ").
void AckAlarmReport(int id);
