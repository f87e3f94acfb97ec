#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zellive {

/// One vertex and one fragment shader, compiled and linked. Call everything, the constructor and destructor included,
/// with the same context current; where none is, nothing compiles or links, silently.
class GLProgram {
 public:
  /// What attributeIndex answers for a name that was not added.
  static constexpr std::uint32_t kNotFound = 0xFFFFFFFF;

  /// Compiles both sources (GLSL ES, UTF-8) and attaches them; failures are logged and kept in the logs below.
  GLProgram(const std::string& vertexShader, const std::string& fragmentShader);
  ~GLProgram();
  GLProgram(const GLProgram&) = delete;
  GLProgram& operator=(const GLProgram&) = delete;

  /// Gives the attribute the next free location, unless it has one. Before link().
  void addAttribute(std::string_view name);
  /// The location that addAttribute gave, or kNotFound.
  [[nodiscard]] std::uint32_t attributeIndex(std::string_view name) const;
  /// The location that the driver gave; −1 when the linked program has no such uniform.
  [[nodiscard]] std::int32_t uniformIndex(const std::string& name) const;
  /// False, with nothing logged, when the program cannot be linked. It may be tried again.
  [[nodiscard]] bool link();
  /// Draws with this program from now on.
  void use() const;
  /// Asks the driver whether the program can run in the present state; its answer is programLog().
  void validate();

  /// True once linked.
  [[nodiscard]] bool initialized() const { return initialized_; }
  /// What the compiler said about a source that did not compile; empty otherwise.
  [[nodiscard]] const std::string& vertexShaderLog() const { return vertexShaderLog_; }
  [[nodiscard]] const std::string& fragmentShaderLog() const { return fragmentShaderLog_; }
  [[nodiscard]] const std::string& programLog() const { return programLog_; }

 private:
  [[nodiscard]] bool compileShader(std::uint32_t& shader, std::uint32_t type, const std::string& source);

  std::vector<std::string> attributes_;
  std::uint32_t program_ = 0;
  std::uint32_t vertShader_ = 0;
  std::uint32_t fragShader_ = 0;
  bool initialized_ = false;
  std::string vertexShaderLog_;
  std::string fragmentShaderLog_;
  std::string programLog_;
};

}  // namespace zellive
