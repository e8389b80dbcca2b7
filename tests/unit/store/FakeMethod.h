// Lookup methods that say what they were asked and answer what a test wants.
#pragma once

#include "unit/store/Watch.h"

#include <pkx509/LookupMethod.h>
#include <pkx509/ObjectStore.h>

#include <functional>
#include <list>
#include <string>
#include <vector>

namespace Velantrix::Test {

using namespace Crypto;
using namespace Crypto::PKX509;

class FakeMethod : public LookupMethod {
 public:
  explicit FakeMethod(const std::string& text = "Fake", Events* log = nullptr)
      : LookupMethod(text), events(log) {}
  ~FakeMethod() override { note("destroyed"); }

  int newItem() override {
    note("newItem");
    return 0;
  }
  void clear() override { act("clear"); }
  int initialize() override {
    act("initialize");
    return result;
  }
  int finish() override {
    act("finish");
    return result;
  }
  int control(int cmd, const char* argc, long argl, char** ret) override {
    act("control " + std::to_string(cmd) + ' ' + (argc == nullptr ? "" : argc) + ' ' +
        std::to_string(argl));
    if (ret != nullptr) *ret = nullptr;
    return result;
  }
  using LookupMethod::getBySubject;
  RefObject getBySubject(Object::Type type, const DistinguishedName& subject) override {
    act("subject " + std::to_string(type) + ' ' + subject.asString());
    return makeAnswer ? makeAnswer() : answer;
  }
  RefObject getByIssuerSerial(Object::Type type, const DistinguishedName& issuer,
                              const ASN1::Integer& serial) override {
    act("issuer " + std::to_string(type) + ' ' + issuer.asString() + ' ' + serial.asString());
    return answer;
  }
  RefObject getByFingerPrint(Object::Type type, const Buffer& fingerPrint) override {
    act("fingerprint " + std::to_string(type) + ' ' + textOf(fingerPrint));
    return answer;
  }
  RefObject getByAlias(Object::Type type, const Buffer& alias) override {
    act("alias " + std::to_string(type) + ' ' + textOf(alias));
    return answer;
  }
  void getBySubject(const DistinguishedName& subject, std::list<RefCertificate>& out) override {
    act("certificates " + subject.asString());
    handed = out.size();
    out.insert(out.end(), certificates.begin(), certificates.end());
  }
  void getBySubject(const DistinguishedName& issuer,
                    std::list<RefCertificateRevocationList>& out) override {
    act("crls " + issuer.asString());
    names.push_back(issuer);
    handed = out.size();
    out.insert(out.end(), crls.begin(), crls.end());
  }

  ObjectStore* pointed() const { return objectStore; }
  const std::string& nameGiven() const { return name; }
  const LookupMethod* selfPointer() const { return self; }

  Events* events;                          ///< borrowed; null: nothing is noted
  int result = 0;                          ///< of initialize, finish and control
  std::string throwOn;                     ///< the operation that throws
  RefObject answer;                        ///< of the four queries
  std::function<RefObject()> makeAnswer;   ///< in its place, for the subject query
  std::list<RefCertificate> certificates;  ///< of the list form
  std::list<RefCertificateRevocationList> crls;
  std::vector<DistinguishedName> names;  ///< CRL issuers that were asked for
  std::size_t handed = 0;                ///< the length of the list that came with the last query

 private:
  void note(const std::string& text) const {
    if (events != nullptr) events->push_back(name == "Fake" ? text : name + ": " + text);
  }
  void act(const std::string& text) const {
    note(text);
    if (!throwOn.empty() && text.starts_with(throwOn)) throw Failure{throwOn};
  }
  static std::string textOf(const Buffer& bytes) {
    return std::string(bytes.data(), bytes.data() + bytes.length());
  }

 public:
  /// Not an exception of the library: it has to arrive as what it is.
  struct Failure {
    std::string what;
  };
};

/// A method and the handle that owns it.
struct Source {
  explicit Source(const std::string& text = "Fake", Events* events = nullptr)
      : method(new FakeMethod(text, events)), handle(method) {}
  FakeMethod* operator->() const { return method; }

  FakeMethod* method;  ///< borrowed
  RefLookupMethod handle;
};

}  // namespace Velantrix::Test
