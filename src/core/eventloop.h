// The main event loop (libev's default loop) and the way other threads hand work to it.
// libev is not thread-safe: only the loop thread may start or stop watchers, so the pairing,
// MQTT and P2P threads post functions with RunInLoop and the loop thread runs them.
#pragma once

#include <ev.h>

#include <functional>

namespace eventloop {

// The default loop, created on first call (flags 0). Throws ev::bad_loop when it cannot be made.
struct ev_loop* Loop();

// Runs fn on the loop thread at its next iteration. Safe from any thread.
void RunInLoop(std::function<void()> fn);

// Runs the loop on the calling thread until Stop() (the daemon never stops it). Returns 0.
int Run();
void Stop();

}  // namespace eventloop
