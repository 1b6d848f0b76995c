// QVDesktopNCTemplate is the notification template that stellwin-backup hands the agent: it shows the
// template's pending items, composed into one text, as one desktop bubble with the template's two
// buttons, and updates that same bubble as items are pushed. A click on a button reaches the agent as
// button 1 or 2; after a click or when the bubble closes, the items are forgotten. Where no desktop
// bubble can be shown, the text goes to the host's message writer (stderr) once, and the items are
// forgotten at once, so that each message is written only once.
// Owned by the agent; refers to the host, which outlives it. Main thread.
#pragma once

#include <cstdint>

#include "platform/QVNCTemplate.h"

class QVHostApp;

class QVDesktopNCTemplate : public QVNCTemplate {
 public:
  explicit QVDesktopNCTemplate(QVHostApp& host);
  ~QVDesktopNCTemplate() override;
  QVDesktopNCTemplate(const QVDesktopNCTemplate&) = delete;
  QVDesktopNCTemplate& operator=(const QVDesktopNCTemplate&) = delete;

  // The id of the bubble on screen, 0 when none.
  std::uint32_t bubbleId() const { return m_bubbleId; }

 protected:
  void show() override;

 private:
  void bubbleButtonClicked(const std::string& actionKey);
  void bubbleClosed();

  QVHostApp& m_host;
  std::uint32_t m_bubbleId = 0;
};
