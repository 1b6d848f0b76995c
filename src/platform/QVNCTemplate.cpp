#include "platform/QVNCTemplate.h"

#include "platform/QVLocalization.h"

void QVNCTemplate::pushItem(const QVNCTemplateItem& item) {
  m_items.push_back(item);
  show();
}

std::string QVNCTemplate::composedText() const {
  if (m_items.empty()) return "";
  const std::string& first = m_items.front().name;
  if (m_items.size() == 1) return qv::stringWithFormat(m_singleMessageTemplate, {first});

  const long count = static_cast<long>(m_items.size());
  if (count > m_maxNumberOfVisibleItems && m_shortedFunction) {
    return m_shortedFunction(this, first, count - 1);
  }
  // Without a shortening function the whole list is shown even beyond the visible number.
  if (m_multiMessageTemplate.empty()) return qv::stringWithFormat(m_singleMessageTemplate, {first});
  std::string joined;
  for (std::size_t i = 0; i < m_items.size(); ++i) {
    if (i > 0) joined += ", ";
    joined += m_items[i].name;
  }
  return qv::stringWithFormat(m_multiMessageTemplate, {joined});
}

void QVNCTemplate::buttonClicked(long index) {
  if (m_delegate) m_delegate->ncTemplate(*this, index);
}
