#pragma once

#include <string>
#include <vector>

namespace zellive {

/// Texts that must not reach a log: stream keys and query strings.
using Secrets = std::vector<std::string>;

/// Stands around calls into librtmp on one thread: keeps SIGPIPE off that thread (blocked once, for the thread's life:
/// librtmp sends without MSG_NOSIGNAL) and sends librtmp's log, with the secrets masked, to ours.
class LibrtmpScope {
 public:
  explicit LibrtmpScope(const Secrets& secrets);
  ~LibrtmpScope();
  LibrtmpScope(const LibrtmpScope&) = delete;
  LibrtmpScope& operator=(const LibrtmpScope&) = delete;

 private:
  const Secrets* former_;
};

/// librtmp's own log level: 0 (critical) to 6 (all); a level above that counts as 1 (errors), which is the default.
void setLibrtmpLogLevel(int level);
[[nodiscard]] int librtmpLogLevel();

}  // namespace zellive
