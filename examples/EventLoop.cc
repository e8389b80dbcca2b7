// usage: event-loop MILLISECONDS < REQUESTS
//
// A daemon in small: one thread runs an event loop and never waits for anything else; verifications, which
// may wait for hosts, run in a few workers. Each has a deadline of MILLISECONDS and can be stopped. A
// request is a line: "FILE" verifies a certificate against the machine's trust directory, "stop FILE"
// stops that. The exit status is 0 when all were valid, 1 otherwise.
#include <pkx509/ConformingVerifier.h>
#include <pkx509/FixedPaths.h>
#include <pkx509/ObjectStore.h>
#include <velantrix/CertificateFactory.h>

#include <openssl/x509_vfy.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <exception>
#include <iostream>
#include <list>
#include <memory>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace Velantrix::Crypto::PKX509;

namespace {

struct Job {
  std::string file;
  std::stop_source stop = {};  // the event loop's; the worker has a token of it
  bool isValid = false;
  std::string said = {};
};
using RefJob = std::shared_ptr<Job>;

// Nothing is shared with other workers: a store of its own, which is made in less than a millisecond.
void verify(Job& job, std::chrono::milliseconds deadline) {
  try {
    std::list<RefCertificate> certificates;
    CertificateFactory::read(Velantrix::File::Path(job.file), certificates);
    if (certificates.empty()) throw std::runtime_error("no certificate");
    ConformingVerifier verifier(RefObjectStore(kCADirectory, X509_FILETYPE_PEM),
                                certificates.front());
    verifier.deadline(deadline);
    verifier.stopToken(job.stop.get_token());
    job.isValid = verifier.isValid() == X509_V_OK;
    job.said = verifier.report().line();  // says whether it may be valid later
  } catch (const std::exception& failure) {
    job.said = failure.what();  // no verdict, and that means not valid
  }
}

class Pool {
 public:
  Pool(std::size_t threads, std::chrono::milliseconds deadline)
      : deadline_(deadline), finishedEvent_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    for (std::size_t i = 0; i < threads; ++i) {
      workers_.emplace_back([this](const std::stop_token& end) { work(end); });
    }
  }
  // The workers end and are joined soon: whatever they wait for is stopped.
  ~Pool() {
    for (std::jthread& worker : workers_) worker.request_stop();
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      for (const RefJob& job : running_) job->stop.request_stop();
    }
    workers_.clear();
    ::close(finishedEvent_);
  }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // Readable when there is something to take.
  int descriptor() const { return finishedEvent_; }

  void add(const RefJob& job) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      waiting_.push_back(job);
    }
    changed_.notify_one();
  }

  std::vector<RefJob> takeFinished() {
    eventfd_t count = 0;
    static_cast<void>(::eventfd_read(finishedEvent_, &count));
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(finished_, {});
  }

 private:
  void work(const std::stop_token& end) {
    std::unique_lock<std::mutex> lock(mutex_);
    while (changed_.wait(lock, end, [this] { return !waiting_.empty(); }) &&
           !end.stop_requested()) {
      const RefJob job = waiting_.front();
      waiting_.pop_front();
      running_.push_back(job);
      lock.unlock();
      verify(*job, deadline_);
      lock.lock();
      running_.remove(job);
      finished_.push_back(job);
      static_cast<void>(::eventfd_write(finishedEvent_, 1));
    }
  }

  const std::chrono::milliseconds deadline_;
  const int finishedEvent_;
  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<RefJob> waiting_;
  std::list<RefJob> running_;
  std::vector<RefJob> finished_;
  std::vector<std::jthread> workers_;  // last: they use the others
};

class Loop {
 public:
  explicit Loop(std::chrono::milliseconds deadline) : pool_(4, deadline) {}

  bool run() {
    while (listening_ || !jobs_.empty()) {
      std::array<pollfd, 2> events{pollfd{pool_.descriptor(), POLLIN, 0},
                                   pollfd{listening_ ? STDIN_FILENO : -1, POLLIN, 0}};
      if (::poll(events.data(), events.size(), -1) < 0) continue;  // a signal
      if (events[0].revents != 0) takeResults();
      if (events[1].revents != 0) readRequests();
    }
    return allValid_;
  }

 private:
  void readRequests() {
    std::array<char, 4096> block{};
    const ssize_t count = ::read(STDIN_FILENO, block.data(), block.size());
    listening_ = count > 0;
    if (!listening_) return;
    input_.append(block.data(), static_cast<std::size_t>(count));
    for (std::size_t end = 0; (end = input_.find('\n')) != std::string::npos;) {
      take(input_.substr(0, end));
      input_.erase(0, end + 1);
    }
  }

  void take(const std::string& request) {
    const std::string stop = "stop ";
    if (request.starts_with(stop)) {
      for (const RefJob& job : jobs_) {
        if (job->file == request.substr(stop.size())) job->stop.request_stop();
      }
      return;
    }
    const auto job = std::make_shared<Job>(Job{.file = request});
    jobs_.push_back(job);
    pool_.add(job);
  }

  void takeResults() {
    for (const RefJob& job : pool_.takeFinished()) {
      std::cout << job->file << ": " << (job->isValid ? "valid" : "not valid") << ": " << job->said
                << std::endl;
      allValid_ = allValid_ && job->isValid;
      jobs_.remove(job);
    }
  }

  Pool pool_;
  std::list<RefJob> jobs_;
  std::string input_;
  bool listening_ = true;
  bool allValid_ = true;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: event-loop MILLISECONDS < REQUESTS\n";
    return 1;
  }
  return Loop(std::chrono::milliseconds(std::atol(argv[1]))).run() ? 0 : 1;
}
