// QVWeakProxy refers to an object without owning it and without ever dangling: it holds a weak_ptr, and
// a message to an object that is gone goes nowhere. The agent keeps its delegate this way. Main thread.
#pragma once

#include <memory>
#include <utility>

template <typename T>
class QVWeakProxy {
 public:
  QVWeakProxy() = default;
  explicit QVWeakProxy(const std::shared_ptr<T>& object) : m_object(object) {}

  // Calls f with the object when it is still alive; otherwise does nothing.
  template <typename F>
  void send(F&& f) const {
    if (auto object = m_object.lock()) std::forward<F>(f)(*object);
  }
  std::shared_ptr<T> lock() const { return m_object.lock(); }
  bool isAlive() const { return !m_object.expired(); }

 private:
  std::weak_ptr<T> m_object;
};
