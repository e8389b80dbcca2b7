#include "foundation/net/ldap/LDAPRequest.h"

#include "foundation/base/Fail.h"
#include "foundation/base/Log.h"
#include "foundation/base/Text.h"

#include <velantrix/Exception.h>

namespace Velantrix {

namespace {
// Of what a server says about a failure; the rest is cut off.
constexpr std::size_t kMaximumText = 512;
}  // namespace

LDAPRequest::LDAPRequest(LDAPSession& session, ber_tag_t answer, const std::string& context)
    : session_(&session), answer_(answer), context_(context) {}

LDAPRequest::~LDAPRequest() = default;

void LDAPRequest::fail(const std::string& text, unsigned int line) const {
  Velantrix::fail({context_.c_str(), "LDAPRequest"}, text, line);
}

void LDAPRequest::note(const std::string& text) const {
  log(kPriorityDebug, context_ + ": " + session_->server().uri() + ": " + text);
}

void LDAPRequest::noteCutShort(const std::string& text) {
  result_.cutShort();
  note(text);
}

void LDAPRequest::send() {
  const int status = transmit(session_->native(), id_);
  if (status != LDAP_SUCCESS) fail(ldap_err2string(status));
}

void LDAPRequest::wait(std::chrono::milliseconds bound) {
  try {
    collect(Deadline(bound));
  } catch (Exception& failure) {
    session_->close();
    failure.stringParameter(session_->server().uri() + ": " + failure.stringParameter());
    throw;
  }
}

void LDAPRequest::collect(const Deadline& deadline) {
  std::size_t unread = kMaximumSize;
  std::size_t unkept = kMaximumSize;
  bool referred = false;
  for (;;) {
    const OwnedLDAPMessage message = session_->receive(id_, unread, deadline);
    if (message == nullptr) break;
    const auto type = static_cast<ber_tag_t>(ldap_msgtype(message.get()));
    if (type == answer_) {
      finish(message.get());
      return;
    }
    if (type == LDAP_RES_INTERMEDIATE) continue;
    if (answer_ != LDAP_RES_SEARCH_RESULT) fail("That is no answer.");
    if (type == LDAP_RES_SEARCH_REFERENCE) {
      if (!referred) note("What another server holds of the directory is left out.");
      referred = true;
    } else if (type != LDAP_RES_SEARCH_ENTRY) {
      fail("That is no answer.");
    } else if (!take(message.get(), unkept)) {
      break;
    }
  }
  if (answer_ != LDAP_RES_SEARCH_RESULT) fail("The answer is too large.");
  noteCutShort("The answer is too large, only what came first is taken.");
  session_->close();
}

bool LDAPRequest::take(LDAPMessage* message, std::size_t& budget) {
  if (result_.searchResultEntries().size() == kMaximumEntries) return false;
  const LDAPSearchResultEntry entry(session_->native(), message, budget);
  if (entry.complete()) result_.add(entry);
  return entry.complete();
}

void LDAPRequest::finish(LDAPMessage* message) {
  int code = LDAP_OTHER;
  char* said = nullptr;
  const int status =
      ldap_parse_result(session_->native(), message, &code, nullptr, &said, nullptr, nullptr, 0);
  const OwnedLDAPText diagnostic(said);
  if (status != LDAP_SUCCESS) fail("The answer is malformed.");
  std::string text = ldap_err2string(code);
  if (said != nullptr && *said != '\0') text += " (" + escapeControls(said, kMaximumText) + ")";
  judge(code, text);
}

void LDAPRequest::judge(int code, const std::string& text) {
  if (code != LDAP_SUCCESS) fail(text);
}

}  // namespace Velantrix
