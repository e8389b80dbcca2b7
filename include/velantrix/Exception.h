/// @file
/// The one exception type of the library.
///
/// @code
///   try {
///     throw Exception("OCSP::Response", 4, "OCSP", __LINE__).stringParameter("Decode failed.");
///   } catch (const Velantrix::Exception& e) {
///     std::cerr << e.asString() << '\n';
///   }
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <exception>
#include <string>

namespace Velantrix {

/// An error that the caller must see.
///
/// A verdict about a certificate is never an exception: it is an `X509_V_ERR_*` code. What is
/// thrown is what kept the library from reaching a verdict: an unreadable file, a certificate
/// extension that cannot be decoded, a dereferenced empty handle.
///
/// The type and its copy operations are visible across the library's border, so it can be caught in
/// a program that loaded the library at run time.
class PKX509_EXPORT Exception : public std::exception {
 public:
  /// The code of a dereferenced empty handle.
  static constexpr int kEmptyHandle = 1;
  /// The code of every other failure.
  static constexpr int kFailure = 4;

  /// @param context the component or operation that failed, or the whole message when @p file is
  ///                null
  /// @param code    `kEmptyHandle` or `kFailure`
  /// @param file    the source file's name, copied; may be null
  /// @param line    the source line, 0 when there is no file
  Exception(const std::string& context, int code, const char* file, unsigned int line);
  Exception(const Exception& other);
  Exception& operator=(const Exception& other);
  ~Exception() override;

  /// Attaches a detail, for example "Decode failed.". Returns the exception itself, so that it can
  /// be attached in the throw expression.
  Exception& stringParameter(const std::string& text);

  const std::string& stringParameter() const noexcept;
  const std::string& context() const noexcept;
  int code() const noexcept;
  /// The source file's name as given to the constructor, or null when there was none. It lives as
  /// long as the exception.
  const char* file() const noexcept;
  unsigned int line() const noexcept;

  /// The exception as one line: `context: parameter (code, file:line)`; the parameter and the place
  /// are left out when there are none. Control characters, and what hides or reorders text, are
  /// escaped.
  std::string asString() const;

  /// What `asString()` says, for handlers of `std::exception`.
  const char* what() const noexcept override;

 private:
  std::string context_;
  std::string parameter_;
  std::string file_;
  std::string text_;
  int code_;
  unsigned int line_;
  bool hasFile_;
};

}  // namespace Velantrix
