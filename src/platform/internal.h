// What the host platform's modules tell each other when a test replaces the board root.
#pragma once

namespace platform {
namespace internal {

// Stops the event thread and forgets handlers, hooked lines and the LED pattern.
void ResetHardware();
// Forgets the parsed nvram view.
void ResetNvramView();

}  // namespace internal
}  // namespace platform
