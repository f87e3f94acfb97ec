#include "zellive/platform/Companion.h"

#include <utility>

#include "zellive/platform/Queue.h"

namespace zellive {
namespace {

constexpr std::uint64_t kSuccess = 200;
constexpr std::uint64_t kUnauthorized = 401;

class LoggedOutAccount : public QMZAccount {
 public:
  explicit LoggedOutAccount(std::shared_ptr<Queue> answers) : answers_(std::move(answers)) {}

  void createLiveRoomWithParams(const QMZDictionary&, QMZCompletion completion) override {
    refuse(std::move(completion));
  }
  void initLiveRoomIdWithParams(const QMZDictionary&, QMZCompletion completion) override {
    refuse(std::move(completion));
  }
  void getLivePushUrlWithRoomId(const std::string& roomId, QMZCompletion completion) override {
    if (!roomId.empty()) {
      refuse(std::move(completion));
    } else if (completion) {
      // A stream without a room keeps the URL that it has: nothing to hand out, and nothing wrong.
      answers_->async([completion = std::move(completion)] { completion({}, kSuccess, std::nullopt); });
    }
  }
  void getLivePullUrlWithRoomId(const std::string&, QMZCompletion completion) override {
    refuse(std::move(completion));
  }
  void liveUpdateStatus(const QMZDictionary&) override {}
  void livePostData(const QMZDictionary&) override {}
  void stopLiveWithRoomId(const std::optional<std::string>&) override {}

 private:
  void refuse(QMZCompletion completion) {
    if (completion) {
      answers_->async([completion = std::move(completion)] {
        completion(QMZError{"no account is logged in"}, kUnauthorized, std::nullopt);
      });
    }
  }

  std::shared_ptr<Queue> answers_;
};

class LoggedOutLoginManager : public QMZLoginManager {
 public:
  explicit LoggedOutLoginManager(std::shared_ptr<Queue> answers)
      : account_(std::make_shared<LoggedOutAccount>(std::move(answers))) {}
  [[nodiscard]] bool hasLogin() const override { return false; }
  [[nodiscard]] std::shared_ptr<QMZAccount> activeAccount() const override { return account_; }

 private:
  std::shared_ptr<QMZAccount> account_;
};

class LoggedOutSdwan : public QMZSdwan {
 public:
  explicit LoggedOutSdwan(std::shared_ptr<Queue> answers)
      : loginManager_(std::make_shared<LoggedOutLoginManager>(std::move(answers))) {}
  [[nodiscard]] std::shared_ptr<QMZLoginManager> loginManager() const override { return loginManager_; }

 private:
  std::shared_ptr<QMZLoginManager> loginManager_;
};

}  // namespace

std::shared_ptr<QMZSdwan> makeLoggedOutSdwan(std::shared_ptr<Queue> answers) {
  return std::make_shared<LoggedOutSdwan>(std::move(answers));
}

}  // namespace zellive
