#include "foundation/net/ldap/LDAPSession.h"

#include "foundation/base/Fail.h"
#include "foundation/net/ldap/LDAPRequest.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <openldap.h>
#include <optional>

namespace Velantrix {

namespace {

constexpr std::chrono::seconds kOpenBound(10);
constexpr std::size_t kChunk = std::size_t{16} * 1024;

constexpr Origin kHere{"LDAPSession", "LDAPSession"};
constexpr const char* kNoLDAP = "What the server sends is not LDAP.";

// libldap's manual wants its first call to come from one thread only.
void startLibrary() {
  static const int version = [] {
    int value = 0;
    static_cast<void>(ldap_get_option(nullptr, LDAP_OPT_PROTOCOL_VERSION, &value));
    return value;
  }();
  static_cast<void>(version);
}

// --- The head of a message (RFC 4511, 4.1.1 and 5.1), with lengths in the definite form:
//     SEQUENCE { messageID INTEGER, [APPLICATION n] ... }

struct Element {
  unsigned char tag;
  std::size_t head;      // octets of tag and length
  std::uint64_t length;  // octets that follow, as the server says
};

// Nothing while octets are missing.
std::optional<Element> elementAt(const std::string& octets, std::size_t at) {
  const auto octet = [&octets](std::size_t i) { return static_cast<unsigned char>(octets[i]); };
  if (octets.size() < at + 2) return std::nullopt;
  const unsigned char first = octet(at + 1);
  if (first < 0x80) return Element{octet(at), 2, first};
  const std::size_t count = first & 0x7fU;
  if (count == 0 || count > 4) fail(kHere, kNoLDAP);
  if (octets.size() < at + 2 + count) return std::nullopt;
  std::uint64_t length = 0;
  for (std::size_t i = 0; i < count; ++i) length = (length << 8U) | octet(at + 2 + i);
  return Element{octet(at), 2 + count, length};
}

// The length of the message in front, as far as it is known; 0 while it is not.
std::uint64_t messageLength(const std::string& octets) {
  if (!octets.empty() && static_cast<unsigned char>(octets[0]) != LDAP_TAG_MESSAGE) {
    fail(kHere, kNoLDAP);
  }
  const std::optional<Element> message = elementAt(octets, 0);
  return message ? message->head + message->length : 0;
}

bool isAnswer(unsigned char operation) {
  switch (operation) {
    case LDAP_RES_BIND:
    case LDAP_RES_SEARCH_ENTRY:
    case LDAP_RES_SEARCH_REFERENCE:
    case LDAP_RES_SEARCH_RESULT:
    case LDAP_RES_EXTENDED:
    case LDAP_RES_INTERMEDIATE:
      return true;
    default:
      return false;
  }
}

// Throws unless the message in front, which is whole, answers the request. What is wrong with its
// outer elements is found here: libldap loses the memory of the request when it finds that.
void checkMessage(const std::string& octets, int id) {
  const std::optional<Element> message = elementAt(octets, 0);
  const std::size_t end = message->head + static_cast<std::size_t>(message->length);
  std::size_t at = message->head;
  const std::optional<Element> number = elementAt(octets, at);
  if (!number || number->tag != LDAP_TAG_MSGID || number->head != 2 || number->length == 0 ||
      number->length > 4 || at + number->head + number->length >= end) {
    fail(kHere, kNoLDAP);
  }
  at += number->head;
  std::uint64_t answered = 0;
  for (std::uint64_t i = 0; i < number->length; ++i, ++at) {
    answered = answered << 8U | static_cast<unsigned char>(octets[at]);
  }
  const std::optional<Element> operation = elementAt(octets, at);
  if (!operation || at + operation->head + operation->length > end) fail(kHere, kNoLDAP);
  if (answered == 0) {
    // RFC 4511, 4.4: unsolicited. The one that is defined is a notice of disconnection.
    fail(kHere, "The server ends the session.");
  }
  if (answered != static_cast<std::uint64_t>(id) || !isAnswer(operation->tag)) {
    fail(kHere, "The server sends what it was not asked for.");
  }
}

// StartTLS, RFC 4511, 4.14.
class StartTlsRequest : public LDAPRequest {
 public:
  explicit StartTlsRequest(LDAPSession& session)
      : LDAPRequest(session, LDAP_RES_EXTENDED, "StartTLS") {}

  void run(const Deadline& deadline) {
    send();
    collect(deadline);
  }

 private:
  int transmit(LDAP* ldap, int& id) override {
    return ldap_extended_operation(ldap, LDAP_EXOP_START_TLS, nullptr, nullptr, nullptr, &id);
  }
};

}  // namespace

struct LDAPSession::Transport {
  static LDAPSession& of(Sockbuf_IO_Desc* descriptor) {
    return *static_cast<LDAPSession*>(descriptor->sbiod_pvt);
  }

  static int s_setup(Sockbuf_IO_Desc* descriptor, void* session) {
    descriptor->sbiod_pvt = session;
    return 0;
  }
  static int s_remove(Sockbuf_IO_Desc* /*descriptor*/) { return 0; }
  static int s_close(Sockbuf_IO_Desc* /*descriptor*/) { return 0; }  // the stream owns the socket

  static int s_ctrl(Sockbuf_IO_Desc* descriptor, int option, void* /*argument*/) {
    const LDAPSession& session = of(descriptor);
    return option == LBER_SB_OPT_DATA_READY && session.read_ < session.frame_ ? 1 : 0;
  }

  static ber_slen_t s_read(Sockbuf_IO_Desc* descriptor, void* to, ber_len_t size) {
    LDAPSession& session = of(descriptor);
    const std::size_t count = std::min<std::size_t>(size, session.frame_ - session.read_);
    if (count == 0) {
      errno = EAGAIN;
      return -1;
    }
    std::memcpy(to, session.in_.data() + session.read_, count);
    session.read_ += count;
    return static_cast<ber_slen_t>(count);
  }

  static ber_slen_t s_write(Sockbuf_IO_Desc* descriptor, void* from, ber_len_t size) {
    try {
      of(descriptor).out_.append(static_cast<const char*>(from), size);
      return static_cast<ber_slen_t>(size);
    } catch (...) {  // nothing but memory can fail, and libldap is C
      errno = ENOMEM;
      return -1;
    }
  }
};

LDAPSession::LDAPSession(const LDAPConnection::RefServer& server)
    : LDAPSession(server, Deadline(kOpenBound)) {}

LDAPSession::LDAPSession(const LDAPConnection::RefServer& server, const Deadline& deadline)
    : server_(server), stream_(this->server(), deadline) {
  if (this->server().ldaps()) stream_.startTls(this->server(), deadline);
  connectLDAP();
  if (this->server().options().startTls) startTls(deadline);
}

LDAPSession::~LDAPSession() {
  ldap_.reset();
  try {
    // As much of the goodbye as goes at once.
    if (sent_ < out_.size()) {
      static_cast<void>(stream_.write(out_.data() + sent_, out_.size() - sent_));
    }
  } catch (...) {
    // The server was faster, or there is no memory: it will notice that nobody is there.
  }
}

void LDAPSession::connectLDAP() {
  startLibrary();
  LDAP* made = nullptr;
  // Without a URI: libldap is connected already, and there is nothing for it to connect to again.
  const int status = ldap_init_fd(stream_.descriptor(), LDAP_PROTO_EXT, nullptr, &made);
  ldap_.reset(made);
  if (status != LDAP_SUCCESS) fail(kHere, ldap_err2string(status));

  static Sockbuf_IO transport = {Transport::s_setup, Transport::s_remove, Transport::s_ctrl,
                                 Transport::s_read,  Transport::s_write,  Transport::s_close};
  Sockbuf* socket = nullptr;  // borrowed: the handle owns it
  // What configuration files and the environment may have changed is set back.
  const int version = LDAP_VERSION3;
  const int aliases = LDAP_DEREF_NEVER;
  const int unlimited = LDAP_NO_LIMIT;
  LDAP* const ldap = ldap_.get();
  const bool ready =
      ldap_get_option(ldap, LDAP_OPT_SOCKBUF, &socket) == LDAP_OPT_SUCCESS && socket != nullptr &&
      ber_sockbuf_add_io(socket, &transport, LBER_SBIOD_LEVEL_PROVIDER, this) == 0 &&
      ldap_set_option(ldap, LDAP_OPT_PROTOCOL_VERSION, &version) == LDAP_OPT_SUCCESS &&
      ldap_set_option(ldap, LDAP_OPT_REFERRALS, LDAP_OPT_OFF) == LDAP_OPT_SUCCESS &&
      ldap_set_option(ldap, LDAP_OPT_DEREF, &aliases) == LDAP_OPT_SUCCESS &&
      ldap_set_option(ldap, LDAP_OPT_SIZELIMIT, &unlimited) == LDAP_OPT_SUCCESS &&
      ldap_set_option(ldap, LDAP_OPT_TIMELIMIT, &unlimited) == LDAP_OPT_SUCCESS;
  if (!ready) fail(kHere, "libldap cannot be set up.");
}

void LDAPSession::startTls(const Deadline& deadline) {
  StartTlsRequest(*this).run(deadline);
  // What was sent along with the answer was not protected, and must not pass for something that is.
  if (!in_.empty()) fail(kHere, "The server sends before TLS is on.");
  stream_.startTls(server(), deadline);
}

LDAP* LDAPSession::native() const {
  if (closed_) fail(kHere, "The session is closed.");
  return ldap_.get();
}

void LDAPSession::flush(const Deadline& deadline) {
  while (sent_ < out_.size()) {
    const std::size_t count = stream_.write(out_.data() + sent_, out_.size() - sent_);
    sent_ += count;
    if (count == 0) stream_.wait(deadline);
  }
  out_.clear();
  sent_ = 0;
}

void LDAPSession::fill(const Deadline& deadline) {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): what is read from it was received.
  std::array<char, kChunk> chunk;
  for (;;) {
    if (const std::size_t count = stream_.read(chunk.data(), chunk.size())) {
      in_.append(chunk.data(), count);
      return;
    }
    stream_.wait(deadline);
  }
}

OwnedLDAPMessage LDAPSession::receive(int id, std::size_t& budget, const Deadline& deadline) {
  flush(deadline);
  std::uint64_t length = messageLength(in_);
  while (length == 0 || in_.size() < length) {
    if (length > budget) return nullptr;
    if (deadline.passed()) fail(kHere, "The server did not answer in time.");
    fill(deadline);
    length = messageLength(in_);
  }
  if (length > budget) return nullptr;
  checkMessage(in_, id);

  frame_ = static_cast<std::size_t>(length);
  budget -= frame_;
  read_ = 0;
  timeval now{};
  LDAPMessage* found = nullptr;
  const int type = ldap_result(ldap_.get(), id, LDAP_MSG_ONE, &now, &found);
  OwnedLDAPMessage message(found);
  in_.erase(0, frame_);
  frame_ = read_ = 0;
  if (type <= 0 || message == nullptr) fail(kHere, kNoLDAP);
  return message;
}

}  // namespace Velantrix
