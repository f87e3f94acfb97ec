#include "zellive/gpu/GLProgram.h"

#include <GLES2/gl2.h>

#include <algorithm>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// Whether the bytes are a text at all: not empty, and UTF-8.
bool isText(std::string_view source) {
  std::size_t i = 0;
  while (i < source.size()) {
    const auto lead = static_cast<unsigned char>(source[i]);
    const std::size_t following = lead < 0x80 ? 0 : lead >= 0xC2 && lead < 0xE0 ? 1 : (lead & 0xF0) == 0xE0 ? 2 : 3;
    if ((lead >= 0x80 && lead < 0xC2) || lead > 0xF4 || source.size() - i <= following) {
      return false;
    }
    for (std::size_t k = 1; k <= following; ++k) {
      if ((static_cast<unsigned char>(source[i + k]) & 0xC0) != 0x80) {
        return false;
      }
    }
    i += following + 1;
  }
  return !source.empty();
}

template <typename GetParameter, typename GetLog>
void readLog(GLuint name, GetParameter getParameter, GetLog getLog, std::string& log) {
  GLint length = 0;
  getParameter(name, GL_INFO_LOG_LENGTH, &length);
  if (length < 1) {
    return;
  }
  log.resize(static_cast<std::size_t>(length));
  GLsizei written = 0;
  getLog(name, length, &written, log.data());
  log.resize(static_cast<std::size_t>(std::clamp(written, 0, length)));
}

}  // namespace

GLProgram::GLProgram(const std::string& vertexShader, const std::string& fragmentShader) : program_(glCreateProgram()) {
  // No context: whoever found none has said so.
  if (program_ == 0) {
    return;
  }
  if (!compileShader(vertShader_, GL_VERTEX_SHADER, vertexShader)) {
    ZEL_LOG_ERROR("Failed to compile vertex shader");
  }
  if (!compileShader(fragShader_, GL_FRAGMENT_SHADER, fragmentShader)) {
    ZEL_LOG_ERROR("Failed to compile fragment shader");
  }
  glAttachShader(program_, vertShader_);
  glAttachShader(program_, fragShader_);
}

GLProgram::~GLProgram() {
  // The name 0 stands for none and is ignored.
  glDeleteShader(vertShader_);
  glDeleteShader(fragShader_);
  glDeleteProgram(program_);
}

bool GLProgram::compileShader(std::uint32_t& shader, std::uint32_t type, const std::string& source) {
  if (!isText(source)) {
    ZEL_LOG_ERROR("Failed to load vertex shader");
    return false;
  }
  shader = glCreateShader(type);
  const GLchar* text = source.c_str();
  glShaderSource(shader, 1, &text, nullptr);
  glCompileShader(shader);
  GLint status = GL_FALSE;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &status);
  if (status != GL_TRUE) {
    readLog(shader, glGetShaderiv, glGetShaderInfoLog,
            type == GL_VERTEX_SHADER ? vertexShaderLog_ : fragmentShaderLog_);
  }
  return status == GL_TRUE;
}

void GLProgram::addAttribute(std::string_view name) {
  if (attributeIndex(name) == kNotFound) {
    attributes_.emplace_back(name);
    glBindAttribLocation(program_, static_cast<GLuint>(attributes_.size() - 1), attributes_.back().c_str());
  }
}

std::uint32_t GLProgram::attributeIndex(std::string_view name) const {
  const auto found = std::find(attributes_.begin(), attributes_.end(), name);
  return found != attributes_.end() ? static_cast<std::uint32_t>(found - attributes_.begin()) : kNotFound;
}

std::int32_t GLProgram::uniformIndex(const std::string& name) const {
  // The answer outside any context would be 0, a location that exists.
  return program_ != 0 ? glGetUniformLocation(program_, name.c_str()) : -1;
}

bool GLProgram::link() {
  glLinkProgram(program_);
  GLint status = GL_FALSE;
  glGetProgramiv(program_, GL_LINK_STATUS, &status);
  if (status == GL_FALSE) {
    return false;
  }
  glDeleteShader(vertShader_);
  glDeleteShader(fragShader_);
  vertShader_ = 0;
  fragShader_ = 0;
  initialized_ = true;
  return true;
}

void GLProgram::use() const { glUseProgram(program_); }

void GLProgram::validate() {
  glValidateProgram(program_);
  readLog(program_, glGetProgramiv, glGetProgramInfoLog, programLog_);
}

}  // namespace zellive
