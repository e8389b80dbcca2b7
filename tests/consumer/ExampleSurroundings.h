// What examples in headers take for given: names that say what they are, as a reader would guess.
#pragma once

#include <pkx509/HashDirLookup.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Rule.h>
#include <pkx509/Verifier.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/KeyStorePlugin.h>

#include <openssl/x509.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <list>
#include <stop_token>
#include <string>
#include <vector>

namespace surroundings {

using namespace Velantrix;
using namespace Velantrix::Crypto;
using namespace Velantrix::Crypto::PKX509;

extern RefObjectStore store;
extern Verifier verifier;
extern Verifier::Config config;

extern RefCertificate certificate;
extern RefCertificate ca;
extern RefCertificate candidate;
extern RefCertificate responder;
extern RefCertificate ourResponder;
extern std::list<RefCertificate> certificates;
extern std::list<RefCertificate> chain;
extern std::list<RefCertificate> intermediates;
extern RefStackOfCertificate untrusted;
extern RefCertificateRevocationList crl;
extern RefCRLDistributionPoint point;
extern DistinguishedName issuer;
extern ASN1::Integer serial;
extern Uri uri;

void answer(int status, const std::string& text);

extern unsigned int reasons;
extern HashDirLookupMethod lookup;

struct Program {
  KeyStorePlugin& keyStore();
};
extern Program program;

extern std::vector<unsigned char> bytes;
extern unsigned int length;
extern Buffer value;

// OpenSSL's
extern X509* x;
extern X509_STORE_CTX* ctx;
extern ASN1_TIME* now;
extern X509_ALGOR* algorithm;
extern ASN1_BIT_STRING* signature;
extern void* data;

// What a program does with what it found
template <class... Arguments>
void use(Arguments&&... arguments);
void compareNames();
void fetch(const Uri& uri);
void log(const std::string& text);
void parse(const unsigned char* data, unsigned int length);
void refuse(const char* reason);
void reject();
void search(const DistinguishedName& name);
void show(const CertificateFactory::Item& item);
extern std::stop_token stop;
void waitUntil(const Time& time, const std::stop_token& stop);

}  // namespace surroundings
