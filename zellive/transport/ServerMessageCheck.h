#pragma once

#include <cstdint>
#include <span>

namespace zellive {

/// Whether a complete message of a server's can be handed to librtmp, whose decoder reads past the end of a malformed
/// one, frees what it never set, and recurses as deep as it is told. Commands must be AMF0 of
/// moderate depth, control messages as long as their types demand; other types always pass.
[[nodiscard]] bool isSafeToDecode(std::uint8_t messageType, std::span<const std::uint8_t> body);

}  // namespace zellive
