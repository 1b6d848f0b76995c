// QVListeners is a list of callbacks for one kind of event, any number of them: a run's start, its
// progress, its outcome, a change of the groups. Each listener stays until the QVSubscription that
// adding it returned is destroyed, so a listener never outlives the object that registered it.
// Notifying calls the listeners in the order they were added, on a copy of the list: a listener may add
// or remove listeners meanwhile (one removed during a notification may still be called this once).
// Main thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <utility>

class QVSubscription {
 public:
  QVSubscription() = default;
  explicit QVSubscription(std::function<void()> cancel) : m_cancel(std::move(cancel)) {}
  QVSubscription(QVSubscription&& other) noexcept : m_cancel(std::exchange(other.m_cancel, nullptr)) {}
  QVSubscription& operator=(QVSubscription&& other) noexcept {
    if (this != &other) {
      reset();
      m_cancel = std::exchange(other.m_cancel, nullptr);
    }
    return *this;
  }
  QVSubscription(const QVSubscription&) = delete;
  QVSubscription& operator=(const QVSubscription&) = delete;
  ~QVSubscription() { reset(); }

  // Removes the listener now.
  void reset() {
    if (auto cancel = std::exchange(m_cancel, nullptr)) cancel();
  }

 private:
  std::function<void()> m_cancel;
};

template <typename... Args>
class QVListeners {
 public:
  using Listener = std::function<void(Args...)>;

  [[nodiscard]] QVSubscription add(Listener listener) {
    const unsigned id = m_nextID++;
    (*m_listeners)[id] = std::move(listener);
    std::weak_ptr<Map> listeners = m_listeners;
    return QVSubscription([listeners, id] {
      if (auto list = listeners.lock()) list->erase(id);
    });
  }

  void notify(Args... args) const {
    const Map current = *m_listeners;
    for (const auto& [id, listener] : current) listener(args...);
  }

  bool empty() const { return m_listeners->empty(); }

 private:
  using Map = std::map<unsigned, Listener>;
  std::shared_ptr<Map> m_listeners = std::make_shared<Map>();
  unsigned m_nextID = 0;
};
