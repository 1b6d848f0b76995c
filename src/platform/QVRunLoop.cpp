#include "platform/QVRunLoop.h"

#include <glib-unix.h>
#include <glib.h>

#include <csignal>
#include <deque>
#include <exception>
#include <mutex>
#include <vector>

#include "platform/QVLog.h"

namespace {

// Work posted to the main thread. One source on the default context, attached once and never removed,
// takes the items off the front of the queue one at a time. The source may recurse: when an item runs a
// nested loop, the items after it still run in order inside that loop instead of waiting behind it or
// overtaking it.
struct PostQueue {
  std::mutex m_mutex;
  std::deque<std::function<void()>> m_items;  // guarded by m_mutex

  bool hasItems() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return !m_items.empty();
  }
};

PostQueue& postQueue() {
  static PostQueue queue;
  return queue;
}

void runGuarded(const char* what, const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& e) {
    qv::debugLog("platform", std::string(what) + " threw: " + e.what());
  } catch (...) {
    qv::debugLog("platform", std::string(what) + " threw an unknown exception");
  }
}

gboolean postSourcePrepare(GSource*, gint* timeout) {
  *timeout = -1;
  return postQueue().hasItems();
}

gboolean postSourceCheck(GSource*) { return postQueue().hasItems(); }

gboolean postSourceDispatch(GSource*, GSourceFunc, gpointer) {
  PostQueue& queue = postQueue();
  // Only what was there when this pass began: work that keeps posting must not starve the other sources.
  size_t count;
  {
    std::lock_guard<std::mutex> lock(queue.m_mutex);
    count = queue.m_items.size();
  }
  for (size_t i = 0; i < count; ++i) {
    std::function<void()> work;
    {
      std::lock_guard<std::mutex> lock(queue.m_mutex);
      if (queue.m_items.empty()) break;  // a nested loop took the rest
      work = std::move(queue.m_items.front());
      queue.m_items.pop_front();
    }
    if (work) runGuarded("posted work", work);
  }
  return G_SOURCE_CONTINUE;
}

GSourceFuncs postSourceFuncs = {postSourcePrepare, postSourceCheck, postSourceDispatch, nullptr, nullptr, nullptr};

void attachPostSourceOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    GSource* source = g_source_new(&postSourceFuncs, sizeof(GSource));
    g_source_set_can_recurse(source, TRUE);
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    g_source_set_name(source, "qv.postToMainThread");
    g_source_attach(source, g_main_context_default());
    g_source_unref(source);  // the context keeps it for the life of the program
  });
}

// The loops of runMainLoop, innermost last. g_main_loop_quit may be called from any thread, hence the lock.
std::mutex loopsMutex;
std::vector<GMainLoop*> loops;  // guarded by loopsMutex

template <typename T>
void deleteBoxed(gpointer data) {
  delete static_cast<T*>(data);
}

gboolean signalCallback(gpointer data) {
  runGuarded("signal handler", *static_cast<std::function<void()>*>(data));
  return G_SOURCE_CONTINUE;
}

}  // namespace

namespace qv {

void postToMainThread(std::function<void()> work) {
  attachPostSourceOnce();
  {
    PostQueue& queue = postQueue();
    std::lock_guard<std::mutex> lock(queue.m_mutex);
    queue.m_items.push_back(std::move(work));
  }
  g_main_context_wakeup(g_main_context_default());
}

void runMainLoop() {
  GMainLoop* loop = g_main_loop_new(g_main_context_default(), FALSE);
  {
    std::lock_guard<std::mutex> lock(loopsMutex);
    loops.push_back(loop);
  }
  g_main_loop_run(loop);
  {
    std::lock_guard<std::mutex> lock(loopsMutex);
    std::erase(loops, loop);
  }
  g_main_loop_unref(loop);
}

void quitMainLoop() {
  std::lock_guard<std::mutex> lock(loopsMutex);
  if (loops.empty()) {
    qv::debugLog("platform", "quitMainLoop: no main loop is running");
    return;
  }
  g_main_loop_quit(loops.back());
}

bool runMainLoopUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  if (condition()) return true;
  GMainContext* context = g_main_context_default();
  bool timedOut = false;
  auto ms = timeout.count() < 0 ? 0 : timeout.count();
  if (ms > G_MAXUINT) ms = G_MAXUINT;
  // The timeout source also wakes the iteration when nothing else happens.
  GSource* timer = g_timeout_source_new(static_cast<guint>(ms));
  g_source_set_callback(
      timer,
      [](gpointer data) -> gboolean {
        *static_cast<bool*>(data) = true;
        return G_SOURCE_REMOVE;
      },
      &timedOut, nullptr);
  g_source_attach(timer, context);
  bool satisfied = false;
  while (!(satisfied = condition()) && !timedOut) g_main_context_iteration(context, TRUE);
  g_source_destroy(timer);
  g_source_unref(timer);
  return satisfied;
}

unsigned addSignalHandler(int signal, std::function<void()> handler) {
  switch (signal) {
    case SIGINT:
    case SIGTERM:
    case SIGHUP:
    case SIGUSR1:
    case SIGUSR2:
      break;
    default:
      qv::debugLog("platform", "addSignalHandler: signal " + std::to_string(signal) + " is not supported");
      return 0;
  }
  auto boxed = std::make_unique<std::function<void()>>(std::move(handler));
  // The source owns the handler from here and deletes it when removed.
  return g_unix_signal_add_full(G_PRIORITY_DEFAULT, signal, signalCallback, boxed.release(),
                                deleteBoxed<std::function<void()>>);
}

void removeSignalHandler(unsigned id) {
  if (id != 0) g_source_remove(id);
}

unsigned addFileDescriptorWatch(int fd, bool forReading, bool forWriting, std::function<bool()> handler) {
  auto boxed = std::make_unique<std::function<bool()>>(std::move(handler));
  const auto conditions =
      static_cast<GIOCondition>(G_IO_HUP | G_IO_ERR | (forReading ? G_IO_IN : 0) | (forWriting ? G_IO_OUT : 0));
  return g_unix_fd_add_full(
      G_PRIORITY_DEFAULT, fd, conditions,
      [](gint, GIOCondition, gpointer data) -> gboolean {
        bool keep = false;
        runGuarded("file descriptor watch", [&] { keep = (*static_cast<std::function<bool()>*>(data))(); });
        return keep ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
      },
      boxed.release(), deleteBoxed<std::function<bool()>>);
}

void removeFileDescriptorWatch(unsigned id) {
  if (id != 0) g_source_remove(id);
}

}  // namespace qv

// ---------------------------------------------------------------------------------------------------------
// QVTimer

struct QVTimer::Impl {
  QVTimer* m_owner = nullptr;
  std::function<void(QVTimer&)> m_action;
  guint m_sourceId = 0;  // 0 once fired or invalidated

  void arm();
  static gboolean fire(gpointer data);
};

void QVTimer::Impl::arm() {
  auto remaining = std::chrono::ceil<std::chrono::milliseconds>(m_owner->m_fireDate - std::chrono::system_clock::now());
  long long ms = remaining.count();
  if (ms < 0) ms = 0;
  // Beyond what GLib takes (about 49 days) the timer wakes early and arms again for the rest.
  if (ms > G_MAXUINT) ms = G_MAXUINT;
  m_sourceId = g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(ms), fire, this, nullptr);
}

gboolean QVTimer::Impl::fire(gpointer data) {
  auto* impl = static_cast<Impl*>(data);
  // GLib counts on the monotonic clock; the date is on the wall clock, which may have been set back
  // meanwhile. Not due yet: wait for the rest.
  if (std::chrono::system_clock::now() < impl->m_owner->m_fireDate) {
    impl->arm();
    return G_SOURCE_REMOVE;
  }
  impl->m_sourceId = 0;
  // The action may destroy the timer (and this Impl): run a copy that lives on this stack, and touch
  // nothing of the timer after it returns.
  std::function<void(QVTimer&)> action = std::move(impl->m_action);
  QVTimer& timer = *impl->m_owner;
  if (action) runGuarded("timer action", [&] { action(timer); });
  return G_SOURCE_REMOVE;
}

QVTimer::QVTimer(QVDate fireDate, std::function<void(QVTimer&)> action)
    : m_fireDate(fireDate), m_impl(std::make_unique<Impl>()) {
  m_impl->m_owner = this;
  m_impl->m_action = std::move(action);
  m_impl->arm();
}

QVTimer::~QVTimer() { invalidate(); }

void QVTimer::invalidate() {
  if (m_impl->m_sourceId != 0) {
    g_source_remove(m_impl->m_sourceId);
    m_impl->m_sourceId = 0;
  }
  m_impl->m_action = nullptr;
}

bool QVTimer::isValid() const { return m_impl->m_sourceId != 0; }
