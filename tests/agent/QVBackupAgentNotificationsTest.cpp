// The agent's failure and warning notifications: the host's templates as the agent sets them up, what
// it pushes, the shortened texts, and where a click on each button leads.
#include <gtest/gtest.h>

#include <tuple>

#include "support/QVAgentTestSupport.h"

QVGroupRef group(const std::string& id, const std::string& title) {
  return std::make_shared<QVGroup>(QVGroup::fromDictionary({{"id", id}, {"title", title}}));
}

using QVBackupAgentNotificationsTest = qvtest::AgentTest;

TEST_F(QVBackupAgentNotificationsTest, ShortensManyItemsIntoOneTextAndOnlyTheFirstButtonShowsTheGroups) {
  // The failure bubble's texts, buttons and live time are checked where the program shows it
  // (QVDesktopNotificationsTest), its delegate and list template here.
  QVNCTemplate& failure = *start().ncTemplate();
  EXPECT_EQ(failure.maxNumberOfVisibleItems(), 10);
  EXPECT_EQ(failure.notification().icon, "");
  EXPECT_EQ(failure.shortedMultiMessageStringCreationFunction()(agent.get(), "Photos - Disk full", 2),
            "Backup for groups failed: Photos - Disk full There are 2 other errors. For more information, click "
            "View Details.");

  // Failures push the group and the suggestion; only the first button shows the groups.
  QVNCTemplate& warning = *agent->ncWarningTemplate();
  EXPECT_EQ(failure.composedText(), "") << "nothing pushed yet";
  agent->showUserPopupForGroup(group("g1", "Photos"),
                               QVError{"", -36, std::nullopt, "Check the connection", std::nullopt});
  EXPECT_EQ(failure.composedText(), "Backup for group failed: Photos - Check the connection");
  agent->showUserPopupForGroup(group("g2", "Music"), QVError{"", 7, std::nullopt, std::nullopt, std::nullopt});
  EXPECT_EQ(failure.composedText(), "Backup for groups failed: Photos - Check the connection, Music - (null)");
  agent->showUserPopupForGroup(group("g3", "Films"), std::nullopt);
  failure.pushItem({"no group", ""});
  ASSERT_EQ(failure.items().size(), 4u);
  EXPECT_EQ(failure.items()[2].name, "Films - (null)");

  host.journal->clear();
  failure.buttonClicked(2);
  warning.buttonClicked(1);  // nothing pushed: nothing to show
  EXPECT_TRUE(host.journal->empty());
  failure.buttonClicked(1);
  EXPECT_EQ(*host.journal,
            (qvtest::Journal{"hostAppProxy:QVBackup|QVBackupAgentDelegate", "host.showGroupsWithIDs:g1,g2,g3"}));

  EXPECT_EQ(warning.maxNumberOfVisibleItems(), 1);
  EXPECT_EQ(warning.singleMessageTemplate(),
            "Backup for group %@ was successful with warning: Some items are missing.");
  EXPECT_EQ(warning.multiMessageTemplate(), "");
  const auto& shown = warning.notification();
  EXPECT_EQ(std::tie(shown.icon, shown.button1Text, shown.button2Text),
            std::make_tuple("DraggingViewNotificationIcon", "Review", "Close"));
  EXPECT_EQ(warning.shortedMultiMessageStringCreationFunction()(agent.get(), "Photos", 3),
            "Backup for group Photos and 3 others was successful with warning: Some items are missing.");
  // Two warnings are more than the warning template shows at once.
  agent->showWarningPopupForGroup(group("a", "Photos"));
  agent->showWarningPopupForGroup(group("b", "Music"));
  EXPECT_EQ(warning.composedText(),
            "Backup for group Photos and 1 others was successful with warning: Some items are missing.");
}
