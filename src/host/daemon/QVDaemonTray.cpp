#include "host/daemon/QVDaemonTray.h"

#include <unistd.h>

#include <filesystem>
#include <ostream>

#include "agent/QVBackupAgent.h"
#include "host/cli/QVHostArguments.h"
#include "host/run/QVHostApp.h"
#include "host/run/QVRunMonitor.h"
#include "menu/QVBackupMenuItemController.h"
#include "platform/QVDesktopNotifications.h"
#include "platform/QVLocalization.h"
#include "platform/QVMenu.h"
#include "platform/desktop/QVStatusNotifierItem.h"

#ifndef QV_BUILD_ICON_DIR
#define QV_BUILD_ICON_DIR ""
#endif
#ifndef QV_INSTALL_ICON_DIR
#define QV_INSTALL_ICON_DIR "/usr/local/share/icons"
#endif

namespace {

// A group's submenu entries, addressed by index as the status menu lays them out.
constexpr std::size_t kStatusLine = 0;

constexpr const char* kIdleIcon = "stellwin-backup";
constexpr const char* kRunningIcon = "stellwin-backup-running";
constexpr const char* kAttentionIcon = "stellwin-backup-attention";

// A cancelled run says nothing about the destination; an empty one wrote nothing and failed nothing.
bool endedInFailure(std::int64_t statusCode) { return statusCode != 0 && statusCode != -128; }

}  // namespace

QVDaemonTray::QVDaemonTray(QVBackupAgent& agent, QVHostApp& host, std::ostream& log, std::function<bool()> mayChange,
                           std::function<void()> didChange)
    : m_agent(agent), m_host(host), m_log(log), m_mayChange(std::move(mayChange)), m_didChange(std::move(didChange)) {
  // The attention a failed run asks for outlasts the daemon starting anew.
  for (const auto& group : m_agent.groups())
    if (group->statusCode && endedInFailure(*group->statusCode)) m_failedGroupIDs.insert(group->identifier);

  QVStatusNotifierItem::Options options;
  options.id = "stellwin-backup";
  options.title = QVLocalizedString("Stellwin Backup");
  options.iconThemePath = iconThemePath();
  options.idleIconName = kIdleIcon;
  options.runningIconName = kRunningIcon;
  options.attentionIconName = kAttentionIcon;

  auto menu = [this] { return m_agent.menuItems().value_or(std::vector<std::shared_ptr<QVMenuItem>>{}); };
  auto look = [this] {
    QVStatusNotifierItem::Look look;
    for (auto it = m_failedGroupIDs.begin(); it != m_failedGroupIDs.end();)
      it = m_agent.groupWithIdentifier(*it) ? std::next(it) : m_failedGroupIDs.erase(it);
    if (m_host.animationDepth() > 0)
      look.status = QVStatusNotifierItem::Status::running;
    else if (!m_failedGroupIDs.empty())
      look.status = QVStatusNotifierItem::Status::needsAttention;
    look.toolTipTitle = QVLocalizedString("Stellwin Backup");
    // The status lines as the menu shows them now, one per group.
    for (const auto& item : m_agent.menuItems().value_or(std::vector<std::shared_ptr<QVMenuItem>>{})) {
      if (!item->submenu() || item->submenu()->numberOfItems() <= kStatusLine) continue;
      if (!look.toolTipText.empty()) look.toolTipText += "\n";
      look.toolTipText += item->title() + ": " + item->submenu()->itemAtIndex(kStatusLine).title();
    }
    return look;
  };
  m_item = QVStatusNotifierItem::publish(options, menu, look, [this](QVMenuItem& item) { clicked(item); });
  if (m_item) m_log << "tray: the status menu is published on the session bus" << std::endl;
}

QVDaemonTray::~QVDaemonTray() {
  // Bubbles may stay on screen; their buttons must not reach a tray that is gone.
  if (QVDesktopNotifications* desktop = m_bubbles.empty() ? nullptr : m_host.desktopNotifications())
    for (std::uint32_t id : m_bubbles) desktop->forget(id);
}

std::string QVDaemonTray::iconThemePath() const {
  // Beside an installed or relocated program first, then the source tree's icons.
  std::error_code error;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) {
    const std::filesystem::path installed = program.parent_path().parent_path() / "share" / "icons";
    if (std::filesystem::exists(installed / "hicolor" / "scalable" / "apps" / (std::string(kIdleIcon) + ".svg"), error))
      return installed.string();
  }
  if (std::filesystem::is_directory(QV_BUILD_ICON_DIR, error)) return QV_BUILD_ICON_DIR;
  return QV_INSTALL_ICON_DIR;
}

void QVDaemonTray::groupsDidChange() {
  if (m_item) m_item->menuDidChange();
}

void QVDaemonTray::runStarted(const QVGroup&) { groupsDidChange(); }

void QVDaemonTray::runProgress(const std::string&, std::int64_t) { groupsDidChange(); }

void QVDaemonTray::runEnded(const QVRunOutcome& outcome) {
  if (outcome.kind == QVRunOutcome::Kind::failed)
    m_failedGroupIDs.insert(outcome.groupID);
  else if (outcome.isSuccess())
    m_failedGroupIDs.erase(outcome.groupID);
  groupsDidChange();
}

void QVDaemonTray::clicked(QVMenuItem& item) {
  if (m_mayChange && !m_mayChange()) {
    m_log << "tray: " << qv::quoted(item.title()) << " waits: the preferences are being read anew" << std::endl;
    return;
  }
  // "Remove group" is known by its identifier, never by its (translated) title.
  std::optional<QVGroup> removed;
  std::size_t removedIndex = 0;
  if (item.identifier() == "Remove group") {
    const auto& groups = m_agent.groups();
    for (std::size_t i = 0; i < groups.size(); ++i)
      if (groups[i]->identifier == item.representedObject()) removed = *groups[i], removedIndex = i;
  }
  item.performAction();
  if (m_didChange) m_didChange();
  if (removed && !m_agent.groupWithIdentifier(removed->identifier)) {
    m_log << "tray: removed group " << qv::quoted(removed->title) << " (" << removed->identifier << ")" << std::endl;
    offerUndo(*removed, removedIndex);
  }
  groupsDidChange();
}

void QVDaemonTray::offerUndo(const QVGroup& removed, std::size_t atIndex) {
  const std::string text = qv::stringWithFormat(QVLocalizedString("Removed group %@"), {removed.title});
  notify(text, QVLocalizedString("Undo"), [this, removed, atIndex] {
    if (m_mayChange && !m_mayChange()) {
      m_log << "tray: the group " << qv::quoted(removed.title)
            << " cannot come back while the preferences are being read anew" << std::endl;
      return;
    }
    if (!m_agent.restoreGroup(removed, atIndex)) return;  // back already
    if (m_didChange) m_didChange();
    m_log << "tray: group " << qv::quoted(removed.title) << " (" << removed.identifier << ") is back" << std::endl;
    groupsDidChange();
  });
}

void QVDaemonTray::showGroupsWithIDs(const std::vector<std::string>& groupIDs) {
  std::string text;
  for (const auto& groupID : groupIDs) {
    if (!text.empty()) text += "\n";
    QVGroupRef group = m_agent.groupWithIdentifier(groupID);
    if (!group) {
      text += qv::stringWithFormat(QVLocalizedString("The group %@ no longer exists."), {groupID});
      continue;
    }
    std::string state;
    if (m_agent.isBackingUpGroupWithID(groupID))
      state = QVLocalizedString("Backing up...");
    else if (QVBackupMenuItemController* controller = m_agent.menuItemController())
      state = controller->pasiveStatusForGroup(*group);
    text += group->title + ": " + state;
    if (group->target.value_or("nil") == "nil") text += " (" + QVLocalizedString("No destination") + ")";
    text +=
        "\n" + qv::stringWithFormat(QVLocalizedString("More: %@"), {"stellwin-backup group show " + group->identifier});
  }
  if (!text.empty()) notify(text, "", nullptr);
}

void QVDaemonTray::notify(const std::string& text, const std::string& buttonText, std::function<void()> onButton) {
  QVDesktopNotifications* desktop = m_host.desktopNotifications();
  std::uint32_t id = 0;
  if (desktop) {
    std::vector<QVDesktopNotifications::Action> actions;
    if (!buttonText.empty()) actions.push_back({"1", buttonText});
    id = desktop->notify(
        0, QVLocalizedString("Stellwin Backup"), text, actions, QVHostApp::desktopIconName(""), -1,
        [onButton](const std::string& key) {
          if (key == "1" && onButton) onButton();
        },
        nullptr);
  }
  if (id == 0) {
    m_log << "tray: " << text << std::endl;
    return;
  }
  m_bubbles.push_back(id);
}
