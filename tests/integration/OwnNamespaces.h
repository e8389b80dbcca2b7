// Runs a part of a test in a child process with mounts and a network of its own.
//
//   inOwnNamespaces([] {
//     mountMemory(directory, "size=16k");          // seen by nobody else
//     bringUpLoopback();
//     const Descriptor listener = bindTo(80);      // free, and nobody has to be root
//     EXPECT_...
//   });
//
// What fails there makes the test fail. The caller must not have started threads: namespaces are
// for processes with one thread.
#pragma once

#include "support/ChildProcess.h"
#include "support/Descriptor.h"
#include "support/Files.h"

#include <cstdio>
#include <exception>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Velantrix::Test {

inline void bringUpLoopback() {
  const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
  ifreq request{};
  request.ifr_name[0] = 'l';
  request.ifr_name[1] = 'o';
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  if (ioctl(socket.number(), SIOCSIFFLAGS, &request) != 0) failWithError("SIOCSIFFLAGS", errno);
}

/// Mounts a new file system in memory over a directory; once more with MS_REMOUNT among the flags
/// changes it.
inline void mountMemory(const char* directory, const char* options, unsigned long flags = 0) {
  if (mount("none", directory, "tmpfs", flags, options) != 0) failWithError("mount", errno);
}

/// The namespaces of `unshare`: as the user that this process is when that one may make them, else
/// with that user as root in them.
inline void enterOwnNamespaces() {
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) == 0) return;
  const std::string user = std::to_string(getuid());
  const std::string group = std::to_string(getgid());
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0) failWithError("unshare", errno);
  writeFile("/proc/self/setgroups", "deny");
  writeFile("/proc/self/uid_map", "0 " + user + " 1");
  writeFile("/proc/self/gid_map", "0 " + group + " 1");
}

inline void inOwnNamespaces(const std::function<void()>& body) {
  std::cout.flush();
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    bool passed = false;
    try {
      enterOwnNamespaces();
      body();
      passed = !testing::Test::HasFailure();
    } catch (const std::exception& error) {
      std::cout << "in namespaces of its own: " << error.what() << '\n';
    }
    std::cout.flush();
    std::fflush(nullptr);
    _exit(passed ? 0 : 1);
  }
  const Descriptor handle = openProcess(child);
  const bool ended = waitForEnd(handle, std::chrono::seconds(60));
  if (!ended) kill(child, SIGKILL);
  EXPECT_EQ(collect(child), 0);
}

}  // namespace Velantrix::Test
