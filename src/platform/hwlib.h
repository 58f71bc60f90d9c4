// The hub's hardware library: LEDs, the button and card-detect lines, registers, the hub's MAC
// and the camera access point. On a development machine it acts on the board's files:
//   <root>/sys/class/net/IF/address   MAC of an interface ("aa:bb:cc:dd:ee:ff")
//   <root>/sys/hub/led                the last LED pattern set
//   <root>/sys/hub/reg/OFFSET         register values as numbers ("0x00200000")
//   <root>/sys/hub/ap_disconnect      one line per station dropped from the camera AP (MAC)
//   <root>/sys/hub/events             a fifo: lines "key CODE TYPE", "card insert", "card remove",
//                                     "card bounce insert|remove", "card lock", "card unlock"
// Button and card events, from the fifo or injected by tests, update the register bits (and
// the board's card, src/platform/boardcard.h) and are handed to the registered handlers on one
// event thread, as the hub's key service does. Card events reach the handler only once
// gpio_hook(21) has armed the card-detect line. Inserting a card makes its device node only
// when the card driver is loaded; removing it leaves the node until the driver is unloaded.
#pragma once

#include <cstddef>
#include <cstdint>

// Register offsets read by the hub.
constexpr int kRegGpioData = 1568;  // bit 21: card detect, 1 = no card
constexpr int kRegKeys = 1572;      // bit 6: the button, 1 = held
constexpr int kGpioCardDetect = 21;

extern "C" {
typedef int (*key_callback_t)(int code, int type);
typedef int (*mmc_callback_t)(int line, int event);

// MAC address of an interface as text "aa:bb:cc:dd:ee:ff" into out. 0 or -1.
int get_hub_mac(const char* ifname, char* out, size_t outlen);
// Asks the camera access point to drop the station with this MAC (twelve hex digits). 0 or -1.
int disconnect_mac(const char* mac);
// Drives the status LED with a pattern 1..5. 0 or -1.
int led_set_pattern(int pattern);
// Reads a register; the board keeps them as numbers in files.
uint32_t reg_read(int offset);
// Arms edge events on a GPIO line. 0 or -1.
int gpio_hook(int line);
// Registers the button handler (code, type: 2 pressed, 1 released). 0 or -1.
int start_key_processor(key_callback_t callback);
// Registers the card-detect handler (line, event). 0 or -1.
int start_mmc_key_processor(mmc_callback_t callback);
}

namespace platform {
// Host only: deliver a button or card-detect event to the registered handler (on the event
// thread, as the hub's key service does) and update the register bits to match.
void InjectKeyEvent(int code, int type);
void InjectCardEvent(bool inserted);
// Host only: an edge on the card-detect line whose level does not change (contact bounce).
void InjectCardBounce(bool insertion_edge);
// Host only: the board card's write-protect switch (no handler call).
void SetCardWriteProtect(bool on);
// Host only: the last pattern given to led_set_pattern, or 0.
int CurrentLedPattern();
}  // namespace platform
