// The agent's failure and warning notifications: how it sets up the host's templates, what it pushes,
// the shortened texts, and where a click on each button leads.
#include <gtest/gtest.h>

#include "agent/QVBackupAgent.h"
#include "support/QVRecordingHost.h"
#include "support/QVTestSupport.h"

namespace {

class QVBackupAgentNotificationsTest : public ::testing::Test {
 protected:
  QVGroupRef group(const std::string& id, const std::string& title) {
    auto g = std::make_shared<QVGroup>();
    g->identifier = id;
    g->title = title;
    return g;
  }

  qvtest::IsolatedEnvironment env;
  qvtest::RecordingHost host;
  QVBackupAgent agent{&host};
};

TEST_F(QVBackupAgentNotificationsTest, SetsUpTheFailureAndWarningTemplates) {
  QVNCTemplate& failure = *agent.ncTemplate();
  EXPECT_EQ(failure.delegate(), &agent);
  EXPECT_EQ(failure.maxNumberOfVisibleItems(), 10);
  EXPECT_EQ(failure.singleMessageTemplate(), "Backup for group failed: %@");
  EXPECT_EQ(failure.multiMessageTemplate(), "Backup for groups failed: %@");
  EXPECT_EQ(failure.notification().button1Text, "View Details...");
  EXPECT_EQ(failure.notification().button2Text, "Cancel");
  EXPECT_EQ(failure.notification().icon, "");
  EXPECT_EQ(failure.notification().liveTime, 10.0);

  QVNCTemplate& warning = *agent.ncWarningTemplate();
  EXPECT_EQ(warning.maxNumberOfVisibleItems(), 1);
  EXPECT_EQ(warning.singleMessageTemplate(),
            "Backup for group %@ was successful with warning: Some items are missing.");
  EXPECT_EQ(warning.multiMessageTemplate(), "");
  EXPECT_EQ(warning.notification().icon, "DraggingViewNotificationIcon");
  EXPECT_EQ(warning.notification().button1Text, "Review");
  EXPECT_EQ(warning.notification().button2Text, "Close");
  EXPECT_EQ(agent.menuItemOrder(), 1);
}

TEST_F(QVBackupAgentNotificationsTest, ShortensManyItemsIntoOneText) {
  auto failure = agent.ncTemplate()->shortedMultiMessageStringCreationFunction();
  auto warning = agent.ncWarningTemplate()->shortedMultiMessageStringCreationFunction();
  ASSERT_TRUE(failure && warning);
  EXPECT_EQ(failure(&agent, "Photos - Disk full", 2),
            "Backup for groups failed: Photos - Disk full There are 2 other errors. For more information, click "
            "View Details.");
  EXPECT_EQ(warning(&agent, "Photos", 3),
            "Backup for group Photos and 3 others was successful with warning: Some items are missing.");
  // Two warnings are more than the warning template shows at once.
  agent.showWarningPopupForGroup(group("a", "Photos"));
  agent.showWarningPopupForGroup(group("b", "Music"));
  EXPECT_EQ(agent.ncWarningTemplate()->composedText(),
            "Backup for group Photos and 1 others was successful with warning: Some items are missing.");
}

TEST_F(QVBackupAgentNotificationsTest, PushesTheGroupAndTheErrorsSuggestion) {
  QVError error;
  error.code = -36;
  error.recoverySuggestion = "Check the connection";
  agent.showUserPopupForGroup(group("g1", "Photos"), error);
  QVError bare;
  bare.code = 7;
  agent.showUserPopupForGroup(group("g2", "Music"), bare);
  const auto& items = agent.ncTemplate()->items();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].name, "Photos - Check the connection");
  EXPECT_EQ(items[0].userInfo, "g1");
  EXPECT_EQ(items[1].name, "Music - (null)");
  EXPECT_EQ(agent.ncTemplate()->composedText(),
            "Backup for groups failed: Photos - Check the connection, Music - (null)");
}

TEST_F(QVBackupAgentNotificationsTest, OnlyTheFirstButtonShowsTheGroups) {
  for (const char* id : {"a", "b", "c"}) agent.showUserPopupForGroup(group(id, id), std::nullopt);
  agent.ncTemplate()->pushItem({"no group", ""});
  host.journal->clear();
  agent.ncTemplate()->buttonClicked(2);
  EXPECT_TRUE(host.journal->empty());
  agent.ncTemplate()->buttonClicked(1);
  EXPECT_EQ(*host.journal, (std::vector<std::string>{"hostAppProxy:QVBackup|QVBackupAgentDelegate",
                                                    "host.showGroupsWithIDs:a,b,c"}));
  host.journal->clear();
  agent.ncWarningTemplate()->buttonClicked(1);  // nothing pushed: nothing to show
  EXPECT_TRUE(host.journal->empty());
}

}  // namespace
