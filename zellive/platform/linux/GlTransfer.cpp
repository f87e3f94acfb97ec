#include "zellive/platform/linux/GlTransfer.h"

#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <libyuv.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "zellive/platform/linux/EglDisplay.h"

namespace zellive {
namespace {

/// The same number in OpenGL ES 3 and in the extension for OpenGL ES 2.
constexpr GLenum kPackRowLength = 0x0D02;

/// Major version of the context's API; "OpenGL ES " precedes it.
int majorVersion() {
  constexpr std::string_view kPrefix = "OpenGL ES ";
  const auto* version = reinterpret_cast<const char*>(glGetString(GL_VERSION));
  return version != nullptr && std::string_view(version).starts_with(kPrefix) ? std::atoi(version + kPrefix.size()) : 0;
}

/// Whether BGRA textures can be drawn into, on which drivers differ.
bool drawsIntoBgra() {
  GLint formerTexture = 0;
  GLint formerFramebuffer = 0;
  glGetIntegerv(GL_TEXTURE_BINDING_2D, &formerTexture);
  glGetIntegerv(GL_FRAMEBUFFER_BINDING, &formerFramebuffer);
  GLuint texture = 0;
  GLuint framebuffer = 0;
  glGenTextures(1, &texture);
  glBindTexture(GL_TEXTURE_2D, texture);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_BGRA_EXT, 16, 16, 0, GL_BGRA_EXT, GL_UNSIGNED_BYTE, nullptr);
  glGenFramebuffers(1, &framebuffer);
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
  const bool complete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
  glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(formerFramebuffer));
  glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(formerTexture));
  glDeleteFramebuffers(1, &framebuffer);
  glDeleteTextures(1, &texture);
  return complete;
}

bool swapsRedAndBlue(const GlCapabilities& capabilities, const TextureShape& asked) {
  return asked.format == GL_BGRA_EXT && !capabilities.bgraTextures;
}

}  // namespace

GlCapabilities GlCapabilities::ofCurrentContext() {
  const auto* extensions = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
  const bool es3 = majorVersion() >= 3;
  GLint size = 0;
  glGetIntegerv(GL_MAX_TEXTURE_SIZE, &size);
  const bool bgra = listHolds(extensions, "GL_EXT_texture_format_BGRA8888");
  return {static_cast<std::size_t>(size > 0 ? size : 0),
          bgra,
          bgra && drawsIntoBgra(),
          listHolds(extensions, "GL_EXT_read_format_bgra"),
          es3 || listHolds(extensions, "GL_EXT_unpack_subimage"),
          es3 || listHolds(extensions, "GL_NV_pack_subimage")};
}

std::size_t bytesPerPixel(std::uint32_t format, std::uint32_t type) {
  if (type != GL_UNSIGNED_BYTE) {
    return 0;
  }
  switch (format) {
    case GL_LUMINANCE:
    case GL_ALPHA:
    case GL_RED_EXT:
      return 1;
    case GL_LUMINANCE_ALPHA:
    case GL_RG_EXT:
      return 2;
    case GL_RGB:
      return 3;
    case GL_RGBA:
    case GL_BGRA_EXT:
      return 4;
    default:
      return 0;
  }
}

TextureShape driverShape(TextureShape shape, bool bgra) {
  if (shape.format == GL_BGRA_EXT) {
    shape.format = bgra ? GL_BGRA_EXT : GL_RGBA;
    shape.internalFormat = shape.format;
  }
  return shape;
}

void uploadRows(const GlCapabilities& capabilities, const TextureShape& asked, const PixelRows& rows,
                std::vector<std::uint8_t>& scratch) {
  const auto width = static_cast<GLsizei>(rows.width);
  const auto height = static_cast<GLsizei>(rows.height);
  const std::size_t pixel = bytesPerPixel(asked.format, asked.type);
  const std::size_t tight = rows.width * pixel;
  const GLenum format = driverShape(asked, capabilities.bgraTextures).format;
  const auto upload = [&](GLint row, GLsizei count, const std::uint8_t* base) {
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, row, width, count, format, asked.type, base);
  };

  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  if (swapsRedAndBlue(capabilities, asked)) {
    scratch.resize(tight * rows.height);
    libyuv::ARGBToABGR(rows.base, static_cast<int>(rows.bytesPerRow), scratch.data(), static_cast<int>(tight), width,
                       height);
    upload(0, height, scratch.data());
  } else if (rows.bytesPerRow == tight) {
    upload(0, height, rows.base);
  } else if (capabilities.unpackRowLength && rows.bytesPerRow % pixel == 0) {
    glPixelStorei(GL_UNPACK_ROW_LENGTH_EXT, static_cast<GLint>(rows.bytesPerRow / pixel));
    upload(0, height, rows.base);
    glPixelStorei(GL_UNPACK_ROW_LENGTH_EXT, 0);
  } else {
    for (std::size_t row = 0; row < rows.height; ++row) {
      upload(static_cast<GLint>(row), 1, rows.base + row * rows.bytesPerRow);
    }
  }
}

std::uint32_t readRows(const GlCapabilities& capabilities, std::uint8_t* base, std::size_t bytesPerRow,
                       std::size_t width, std::size_t height) {
  // Errors of earlier calls are not ours.
  for (int earlier = 0; earlier < 8 && glGetError() != GL_NO_ERROR; ++earlier) {
  }
  const std::size_t tight = width * 4;
  const GLenum format = capabilities.bgraReads ? GL_BGRA_EXT : GL_RGBA;
  const bool padded = bytesPerRow != tight;
  if (padded && capabilities.packRowLength) {
    glPixelStorei(kPackRowLength, static_cast<GLint>(bytesPerRow / 4));
  }
  glReadPixels(0, 0, static_cast<GLsizei>(width), static_cast<GLsizei>(height), format, GL_UNSIGNED_BYTE, base);
  if (padded && capabilities.packRowLength) {
    glPixelStorei(kPackRowLength, 0);
  } else if (padded) {
    // From the last row up, so that none is overwritten before it has moved.
    for (std::size_t row = height; row-- > 1;) {
      std::memmove(base + row * bytesPerRow, base + row * tight, tight);
    }
  }
  if (!capabilities.bgraReads) {
    libyuv::ABGRToARGB(base, static_cast<int>(bytesPerRow), base, static_cast<int>(bytesPerRow),
                       static_cast<int>(width), static_cast<int>(height));
  }
  return glGetError();
}

}  // namespace zellive
