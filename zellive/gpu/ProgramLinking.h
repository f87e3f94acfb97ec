#pragma once

namespace zellive {

class GLProgram;

/// Video-processing queue, the shared context current. False when the program cannot be linked; the log then has what
/// linker and compilers said.
[[nodiscard]] bool linkOrExplain(GLProgram& program);

}  // namespace zellive
