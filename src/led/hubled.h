// The status LED, the button and the factory-reset hand-over.
#pragma once

// Starts the LED thread. 0 or -1.
int InitLed();
// Sets the LED state (3, 4 or 5).
void SetupLed(int state);
// Registers the button handler.
int InitSyncAndReset();
