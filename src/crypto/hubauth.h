// Key agreement and viewer credentials.
#pragma once

// Initialises libsodium. 0, or -1 when the library cannot start.
int libsodium_init();
