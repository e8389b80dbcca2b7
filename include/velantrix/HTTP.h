/// @file
/// The handle to a connection of the library's HTTP client.
///
/// @code
///   LW::HTTP::RefConnection connection;   // what a class that speaks HTTP has as a member
///   LW::HTTP::RefConnection same(connection);
///   if (!same) ...                        // no connection has been made yet
/// @endcode
///
/// A program has this type because `OCSP::Client` has such a member, and does no more with it. What
/// a connection and a stream can do is declared where they are used, inside the library: they are
/// driven with Boost.Asio's types, which a program that verifies certificates need not compile.
#pragma once

#include <velantrix/Export.h>

#include <memory>

namespace Velantrix::LW::HTTP {

class Connection;
class RefStream;

/// A shared handle to a connection; copies share it.
class PKX509_EXPORT RefConnection {
 public:
  /// An empty handle.
  RefConnection() noexcept = default;
  /// A new connection over @p stream, not yet opened. For the library, which has streams.
  /// @throws Exception for an empty handle
  explicit RefConnection(RefStream& stream);

  bool empty() const noexcept { return connection_ == nullptr; }
  /// True when the handle holds a connection.
  explicit operator bool() const noexcept { return !empty(); }
  /// For the library, which knows what a connection can do.
  /// @throws Exception with code 1 on an empty handle
  Connection* operator->() const;

 private:
  std::shared_ptr<Connection> connection_;
};

}  // namespace Velantrix::LW::HTTP
