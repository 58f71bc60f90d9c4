#include "core/eventloop.h"

#include <ev++.h>

#include <csignal>
#include <deque>
#include <mutex>

#include "base/log.h"

namespace eventloop {
namespace {

struct Poster {
  std::mutex mutex;
  std::deque<std::function<void()>> queue;
  ev_async async;
  bool stop = false;
};

Poster& ThePoster() {
  static Poster poster;
  return poster;
}

void OnAsync(struct ev_loop* loop, ev_async* /*w*/, int /*revents*/) {
  Poster& p = ThePoster();
  std::deque<std::function<void()>> work;
  bool stop;
  {
    std::lock_guard<std::mutex> lock(p.mutex);
    work.swap(p.queue);
    stop = p.stop;
  }
  for (auto& fn : work) fn();
  if (stop) ev_break(loop, EVBREAK_ALL);
}

}  // namespace

struct ev_loop* Loop() {
  static struct ev_loop* loop = [] {
    struct ev_loop* l = ev_default_loop(0);
    if (l == nullptr) throw ev::bad_loop();
    // The default loop reaps every child on SIGCHLD for its child watchers. The hub has none:
    // each shell command is waited for by the thread that started it, which would otherwise
    // lose the exit status to the loop thread. Daemonising later ignores SIGCHLD as before.
    std::signal(SIGCHLD, SIG_DFL);
    Poster& p = ThePoster();
    ev_async_init(&p.async, OnAsync);
    ev_async_start(l, &p.async);
    return l;
  }();
  return loop;
}

void RunInLoop(std::function<void()> fn) {
  struct ev_loop* loop = Loop();
  Poster& p = ThePoster();
  {
    std::lock_guard<std::mutex> lock(p.mutex);
    p.queue.push_back(std::move(fn));
  }
  ev_async_send(loop, &p.async);
}

int Run() {
  struct ev_loop* loop = Loop();
  TLOG(LOG_DEBUG) << "Main event loop running";
  ev_run(loop, 0);
  return 0;
}

void Stop() {
  Poster& p = ThePoster();
  {
    std::lock_guard<std::mutex> lock(p.mutex);
    p.stop = true;
  }
  ev_async_send(Loop(), &p.async);
}

}  // namespace eventloop
