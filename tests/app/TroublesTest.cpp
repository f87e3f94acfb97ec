#include "apps/zellive/Troubles.h"

#include <gtest/gtest.h>

namespace zellive::tool {
namespace {

using namespace std::chrono_literals;

/// Events are letters: R, C and B fail with a refused connection, a closed one and a name in use; G, O and N are the
/// network gone, out from the start, and back or another; A an attempt; K the stream is up. A second passes with each.
std::string story(const std::string& events) {
  Troubles troubles("URL", 5, 3);
  std::string text;
  Troubles::Duration now{};
  const auto tell = [&](const std::optional<Trouble>& trouble) { text += (trouble ? trouble->text : "-") + "\n"; };
  for (const char event : events) {
    now += 1s;
    switch (event) {
      case 'R':
        tell(troubles.connectionFailed(-3, "Connection refused", now));
        break;
      case 'C':
        tell(troubles.connectionFailed(-8, "the server closed the connection", now));
        break;
      case 'B':
        tell(troubles.connectionFailed(-5, "NetStream.Publish.BadName (Already publishing)", now));
        break;
      case 'G':
        tell(troubles.networkGone(now));
        break;
      case 'O':
        troubles.networkIsOut();
        break;
      case 'N':
        tell(troubles.networkChanged(now));
        break;
      case 'A':
        troubles.attemptBegins();
        break;
      default:
        if (const auto outage = troubles.connected(now)) {
          text += "back after " + std::to_string(*outage / 1s) + "\n";
        }
    }
    EXPECT_EQ(troubles.isWaiting(), event != 'A' && event != 'K' && event != 'O') << events;
  }
  return text + "| " + (troubles.hasFailed() ? troubles.givenUp().text : "") + "| " + troubles.nothingPublished();
}

TEST(TroublesTest, SayWhatIsWrongAndWhatIsBeingDoneAndRepeatNothing) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"nothing", "K", "| | "},
      {"refused from the start", "RARAR",
       "Connection refused (retry 1 of 2 in 5 s)\nthe same again (retry 2 of 2 in 5 s)\n-\n"
       "| cannot publish to URL: given up, as --reconnect-count is 3| "
       "cannot publish to URL: interrupted, and nothing was published"},
      {"at last for another reason", "RARAC",
       "Connection refused (retry 1 of 2 in 5 s)\nthe same again (retry 2 of 2 in 5 s)\n-\n"
       "| cannot publish to URL: the server closed the connection| "
       "cannot publish to URL: interrupted, and nothing was published: the server closed the connection"},
      {"lost and found", "KCABAK",
       "the connection is lost: the server closed the connection (retry 1 of 2 in 5 s)\n"
       "NetStream.Publish.BadName (Already publishing): its name is in use, perhaps still by the connection that was "
       "lost (retry 2 of 2 in 5 s)\nback after 4\n| | "},
      {"and lost again", "KCAKC",
       "the connection is lost: the server closed the connection (retry 1 of 2 in 5 s)\nback after 2\n"
       "the connection is lost: the server closed the connection (retry 1 of 2 in 5 s)\n"
       "| the connection to URL was lost: given up, as --reconnect-count is 3| "},
      {"no network", "KGCNAK",
       "the network is gone; waiting until it is back\nthe server closed the connection (waiting for the network)\n"
       "the network is back; connecting again in 5 s\nback after 4\n| | "},
      {"none from the start", "ORNAK",
       "Connection refused (waiting for the network)\nthe network is back; connecting again in 5 s\n| | "},
      {"another network", "KNAK", "the network has changed; connecting again in 5 s\nback after 2\n| | "},
  };
  for (const auto& [what, events, told] : cases) {
    EXPECT_EQ(story(events), told) << what;
  }
}

}  // namespace
}  // namespace zellive::tool
