// The status LED, the button and the factory-reset hand-over.
//
// LED: one process-wide state 1..5 under the LED mutex. Any thread sets it with SetupLed (the
// local-status handler, the pairing server, the supervision timer); the LED thread started by
// InitLed looks at it every 100 ms and drives the LED (led_set_pattern) only when it differs from
// the state it applied last, so setting the same state twice changes nothing visible.
// ForgetLedState makes the LED thread drive the next state even when it equals the last one.
// The pattern each state shows is listed in docs/housekeeping.md.
//
// Button: the key service calls SyncKeyProcesser on its own thread. Each press starts a
// detached reset thread that counts down 7 one-second steps while the button stays held
// (CheckBtn reads the key register) and then hands the reset over: signal 42 to the
// "ipcamera-daemon" process (on a development machine only a process running from the board),
// or, when that process is absent, "echo error reboot > /dev/ttyS1" and "reboot" through the
// board's shims. Every press has its own number: a reset thread whose press was released, or
// followed by a newer press, ends without acting, so one press acts at most once.
#pragma once

// LED states used by the hub.
constexpr int kLedSetup = 3;       // set-up access point, or pairing failed
constexpr int kLedReady = 4;       // cloud connected, pairing done
constexpr int kLedConnecting = 5;  // on the way to the cloud, pairing mode open

// Starts the access point when "/etc/zelo/wifi.conf" is missing ("/etc/zelo/wifi_start.sh",
// then "ifconfig ra0 down"), sets the first state (5 provisioned, 3 not) and starts the LED
// thread. Ends the process by an assertion failure when the thread cannot be created. 0.
int InitLed();
// Sets the LED state (1..5; other values are logged and ignored).
void SetupLed(int state);
// The LED thread forgets the state it applied last, so it drives the next one in any case.
void ForgetLedState();
// The state set last (0 before InitLed).
int GetLedState();
// Tests: stops the LED thread and waits until it has ended; InitLed starts it again.
void StopLed();

// Registers SyncKeyProcesser with the key service ("Tarvo auth handle start"). 0 or -1.
int InitSyncAndReset();
// Key callback: type 2 pressed (starts a reset thread), type 1 released. Returns 0.
int SyncKeyProcesser(int code, int type);
// 1 while the button is held (register 1572, bit 6), else 0.
int CheckBtn();
// Body of the reset thread; arg carries the number of the press it watches.
void* reset_thread_function(void* arg);

// Tests: the reset thread's one-second wait; null restores the real one.
void SetResetSleep(void (*sleep_one_second)());
