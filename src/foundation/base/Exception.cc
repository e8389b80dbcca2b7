#include "foundation/base/Text.h"

#include <velantrix/Exception.h>

#include <limits>

namespace Velantrix {

namespace {

std::string oneLine(const std::string& context, const std::string& parameter, int code,
                    const char* file, unsigned int line) {
  std::string text = context;
  if (!parameter.empty()) text += ": " + parameter;
  text += " (" + std::to_string(code);
  if (file != nullptr) text += std::string(", ") + file + ":" + std::to_string(line);
  text += ")";
  // File names and texts of certificates may hold line ends.
  return escapeControls(text, std::numeric_limits<std::size_t>::max());
}

}  // namespace

Exception::Exception(const std::string& context, int code, const char* file, unsigned int line)
    : context_(context),
      file_(file == nullptr ? "" : file),
      text_(oneLine(context, parameter_, code, file, line)),
      code_(code),
      line_(line),
      hasFile_(file != nullptr) {}

Exception::Exception(const Exception& other) = default;
Exception& Exception::operator=(const Exception& other) = default;
Exception::~Exception() = default;

Exception& Exception::stringParameter(const std::string& text) {
  parameter_ = text;
  text_ = oneLine(context_, parameter_, code_, file(), line_);
  return *this;
}

const std::string& Exception::stringParameter() const noexcept { return parameter_; }
const std::string& Exception::context() const noexcept { return context_; }
int Exception::code() const noexcept { return code_; }
const char* Exception::file() const noexcept { return hasFile_ ? file_.c_str() : nullptr; }
unsigned int Exception::line() const noexcept { return line_; }

std::string Exception::asString() const { return text_; }
const char* Exception::what() const noexcept { return text_.c_str(); }

}  // namespace Velantrix
