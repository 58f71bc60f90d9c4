// Upload of motion alarms: presigned URLs, encryption, upload, report.
#pragma once

int alarm_upload_init();
int alarm_upload_lock_init();
// Starts the upload thread. 0 or -1.
int InitPirUpload();
