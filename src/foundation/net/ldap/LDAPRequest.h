// A request to an LDAP server and the wait for its answer.
//
//   LDAPSearch search(connection, parameter);
//   search.send();
//   search.wait(30s);
//   use(search.result());
#pragma once

#include "foundation/base/Deadline.h"
#include "foundation/net/ldap/LDAPResult.h"
#include "foundation/net/ldap/LDAPSession.h"

#include <velantrix/NonCopyable.h>

#include <chrono>
#include <ldap.h>
#include <string>

namespace Velantrix {

class LDAPRequest : private NonCopyable {
 public:
  /// How many entries of an answer are taken, and how many octets of it.
  static constexpr unsigned int kMaximumEntries = 1000;
  static constexpr std::size_t kMaximumSize = std::size_t{16} * 1024 * 1024;

  virtual ~LDAPRequest();

  /// Encodes the request. It leaves with the wait, so that sending has a bound as well.
  /// @throws Exception when it cannot be encoded or the session was closed
  void send();

  /// Waits for the whole answer, however it arrives, for at most that time. An answer that goes
  /// beyond the limits above is taken up to them; the result and a line in the log say so.
  /// @throws Exception when the time is up, the server refuses the request or closes the
  ///         connection, or the answer is malformed. The session is closed then, and also when a
  ///         limit was reached
  void wait(std::chrono::milliseconds bound);

  /// What the wait has brought; empty before.
  const LDAPResult& result() const noexcept { return result_; }

 protected:
  /// @param session borrowed, and outlives the request
  /// @param answer  the type of message that ends the answer, `LDAP_RES_...`
  /// @param context what exceptions and log lines call the request
  LDAPRequest(LDAPSession& session, ber_tag_t answer, const std::string& context);

  /// Calls the function of libldap that sends the request, and returns its result code.
  virtual int transmit(LDAP* ldap, int& id) = 0;

  /// Looks at the result code that ends an answer (RFC 4511, 4.1.9). This one throws for
  /// everything but success.
  /// @param text the code and what the server says about it, fit for a log line
  virtual void judge(int code, const std::string& text);

  /// What wait() does, for a request that is part of a greater operation with its own deadline.
  void collect(const Deadline& deadline);

  [[noreturn]] void fail(const std::string& text, unsigned int line = __builtin_LINE()) const;
  /// Writes a log line about this request.
  void note(const std::string& text) const;
  /// The same of an answer that a limit has cut short.
  void noteCutShort(const std::string& text);

 private:
  bool take(LDAPMessage* message, std::size_t& budget);
  void finish(LDAPMessage* message);

  LDAPSession* session_;
  ber_tag_t answer_;
  std::string context_;
  int id_ = 0;
  LDAPResult result_;
};

}  // namespace Velantrix
