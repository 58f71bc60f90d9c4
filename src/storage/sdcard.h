// SD card detection, mounting, formatting and state.
#pragma once

// Detects and mounts the card. 0 or -1.
int InitSdCard();
