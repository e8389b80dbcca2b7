#include "crl/Retriever.h"

#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {
thread_local Retriever* currentRetriever = nullptr;
}  // namespace

Retriever::Installed::Installed(Retriever& retriever) noexcept
    : outer_(std::exchange(currentRetriever, &retriever)) {}

Retriever::Installed::~Installed() { currentRetriever = outer_; }

Retriever* Retriever::current() noexcept { return currentRetriever; }

}  // namespace Velantrix::Crypto::PKX509
