#include "platform/system/NamedSandbox.h"

#include "tests/support/InChild.h"
#include "tests/support/RootFixture.h"

#include <fcntl.h>
#include <netdb.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>

#include <cerrno>
#include <thread>

namespace quorvane::platform {
namespace {

namespace fs = std::filesystem;
using test::inChild;

/// What a confined child found out, one line for each expectation that did not come true.
class Findings {
  public:
    void expect(const char* what, bool came) {
        if (!came) _text += std::string(what) + " (" + std::to_string(errno) + ")\n";
    }
    const std::string& text() const { return _text; }

  private:
    std::string _text;
};

bool opens(const std::string& path, int flags = O_RDONLY) {
    return static_cast<bool>(UniqueDescriptor(::open(path.c_str(), flags | O_CLOEXEC, 0600)));
}

bool isRefused(const std::string& path, int flags = O_RDONLY) {
    return !opens(path, flags) && (errno == EACCES || errno == EPERM);
}

bool lists(const std::string& path) {
    std::error_code error;
    fs::directory_iterator(path, error);
    return !error;
}

bool failsWith(int error, long result) {
    return result == -1 && errno == error;
}

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

UniqueDescriptor boundSocket(const std::string& path, int type = SOCK_STREAM) {
    const sockaddr_un address = socketAddress(path);
    UniqueDescriptor socket(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        socket.reset();
    return socket;
}

bool sendsDatagram(const std::string& path) {
    const sockaddr_un address = socketAddress(path);
    const UniqueDescriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return ::sendto(socket.get(), "text", 4, 0, reinterpret_cast<const sockaddr*>(&address),
                    sizeof address) == 4;
}

class SandboxTest : public RootFixture {
  protected:
    std::string at(const std::string& path) const { return _root.string() + path; }
    void writeProfile(const std::string& text) const { write("usr/share/quorvane/sandbox/test.toml", text); }

    /// The error of applying the profile, or what the probe finds after it.
    static std::string confined(
        const std::string& profile, const std::function<void(Findings&)>& probe = [](Findings&) {}) {
        return inChild([&] {
            if (const auto applied = applySandboxProfile(profile); !applied)
                return "error: " + applied.error().message;
            Findings findings;
            probe(findings);
            return findings.text();
        });
    }

    /// As above, under the profile that the daemon ships with.
    std::string confinedAsShipped(const std::function<void(Findings&)>& probe) const {
        fs::create_directories(at("/usr/share/quorvane/sandbox"));
        fs::copy_file(QUORVANE_SHIPPED_PROFILE, at("/usr/share/quorvane/sandbox/com.velmora.quorvaned.toml"));
        return confined("com.velmora.quorvaned", probe);
    }
};

TEST_F(SandboxTest, ConfigurationAndCodeAreReadableStateIsWritableAndTheSystemsLogIsReached) {
    const std::string file = at("/etc/quorvane/device.toml"), state = at("/var/lib/quorvane/"),
                      log = at("/var/mobile/Library/Logs/Faultrel/");
    write("etc/quorvane/device.toml", "ProductType = \"Q1\"");
    write("etc/login.defs", "SYS_UID_MAX 999");
    write("usr/lib/quorvane/OsselAdaptor.so", "code");
    const std::string journal = at("/run/systemd/journal/socket");
    fs::create_directories(at("/run/systemd/journal"));
    const UniqueDescriptor systemLog = boundSocket(journal, SOCK_DGRAM);
    EXPECT_EQ(confinedAsShipped([&](Findings& findings) {
                  findings.expect("a file opens", opens(file));
                  findings.expect("the range of system users opens", opens(at("/etc/login.defs")));
                  findings.expect("the folder lists", lists(at("/etc/quorvane")));
                  findings.expect("a file is not written", isRefused(file, O_WRONLY));
                  findings.expect("a file is not emptied", isRefused(file, O_RDONLY | O_TRUNC));
                  findings.expect("a file is not cut", failsWith(EPERM, ::truncate(file.c_str(), 0)));
                  findings.expect("no file is made", isRefused(at("/etc/quorvane/new"), O_WRONLY | O_CREAT));
                  findings.expect("no file is removed", failsWith(EACCES, ::unlink(file.c_str())));

                  findings.expect("code opens", opens(at("/usr/lib/quorvane/OsselAdaptor.so")));
                  findings.expect("its folder does not list", !lists(at("/usr/lib/quorvane")));

                  const std::string made = state + "new", kept = state + "id";
                  findings.expect("state is made", opens(made, O_WRONLY | O_CREAT | O_EXCL));
                  findings.expect("it is renamed", ::rename(made.c_str(), kept.c_str()) == 0);
                  findings.expect("it is emptied", opens(kept, O_WRONLY | O_TRUNC));
                  findings.expect("it is removed", ::unlink(kept.c_str()) == 0);
                  findings.expect("no link is made", failsWith(EACCES, ::symlink("/", made.c_str())));
                  findings.expect("the log's folder is made", ::mkdir((log + "Retired").c_str(), 0755) == 0);
                  findings.expect("and written", opens(log + "Retired/a", O_WRONLY | O_CREAT));
                  findings.expect("not so above", isRefused(at("/var/mobile/Library/a"), O_WRONLY | O_CREAT));

                  findings.expect("the system's log can be seen", ::access(journal.c_str(), F_OK) == 0);
                  findings.expect("a datagram is sent", sendsDatagram(journal));
                  findings.expect("the service's socket is made",
                                  static_cast<bool>(boundSocket(at("/run/quorvane/socket"))));
                  findings.expect("no file is made", isRefused(at("/run/quorvane/a"), O_WRONLY | O_CREAT));
                  findings.expect("no socket elsewhere", !boundSocket(at("/var/lib/quorvane/socket")));
              }),
              "");
    char text[8];
    EXPECT_EQ(::recv(systemLog.get(), text, sizeof text, MSG_DONTWAIT), 4);
    EXPECT_EQ(read("etc/quorvane/device.toml"), "ProductType = \"Q1\"");
}

TEST_F(SandboxTest, WhatIsOutsideStaysOutsideAndDangerousSystemCallsAreRefused) {
    write("home/secret", "secret");
    const std::string secret = at("/home/secret");
    const UniqueDescriptor before(::open(secret.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(confinedAsShipped([&](Findings& findings) {
                  findings.expect("a file is refused", isRefused(secret));
                  findings.expect("also through a link of /proc",
                                  isRefused("/proc/self/fd/" + std::to_string(before.get())));
                  findings.expect("system accounts are refused", isRefused("/etc/passwd"));
                  findings.expect("the environment is refused", isRefused("/proc/self/environ"));
                  findings.expect("folders are refused", !lists(at("")) && !lists("/") && !lists("/etc"));
                  char letter = 0;
                  findings.expect("an open descriptor still reads", ::read(before.get(), &letter, 1) == 1);
                  findings.expect("facts can be asked for", ::access(secret.c_str(), F_OK) == 0);

                  char program[] = "/bin/true";
                  char* arguments[] = {program, nullptr};
                  pid_t child = 0;
                  findings.expect("execve", failsWith(EPERM, ::execv(program, arguments)));
                  findings.expect("fork", failsWith(EPERM, ::fork()));
                  findings.expect("posix_spawn", ::posix_spawn(&child, program, nullptr, nullptr, arguments,
                                                               nullptr) == EPERM);
                  findings.expect("unshare", failsWith(EPERM, ::syscall(SYS_unshare, 0)));
                  findings.expect("ptrace", failsWith(EPERM, ::syscall(SYS_ptrace, 0, 0, 0, 0)));
                  findings.expect("bpf", failsWith(EPERM, ::syscall(SYS_bpf, -1, 0, 0)));
                  findings.expect("keyctl", failsWith(EPERM, ::syscall(SYS_keyctl, -1)));
                  findings.expect("io_uring", failsWith(ENOSYS, ::syscall(SYS_io_uring_setup, 0, 0)));
                  findings.expect("openat2", failsWith(ENOSYS, ::syscall(SYS_openat2, -1, "/", 0, 0)));
              }),
              "");
}

TEST_F(SandboxTest, WhatTheLibrariesNeedStillWorks) {
    EXPECT_EQ(
        confinedAsShipped([](Findings& findings) {
            bool threadIsConfined = false;
            std::thread([&] { threadIsConfined = isRefused("/etc/passwd"); }).join();
            findings.expect("threads start, confined", threadIsConfined);
            char bytes[16];
            findings.expect("random bytes", ::getrandom(bytes, sizeof bytes, 0) == sizeof bytes);
            findings.expect("the random device", opens("/dev/urandom"));
            findings.expect("memory files", ::memfd_create("entry", MFD_CLOEXEC) >= 0);
            int pair[2];
            findings.expect("socket pairs", ::socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) == 0);
            findings.expect("datagrams in bulk", ::sendmmsg(pair[0], nullptr, 0, 0) == 0);
            addrinfo* found = nullptr;
            findings.expect("name services", ::getaddrinfo("localhost", "80", nullptr, &found) == 0);
            if (found != nullptr) ::freeaddrinfo(found);
            for (const char* file : {"/etc/resolv.conf", "/etc/hosts", "/etc/nsswitch.conf", "/etc/localtime",
                                     "/etc/ssl/openssl.cnf", "/etc/ssl/certs/ca-certificates.crt",
                                     "/usr/share/zoneinfo/UTC", "/etc/os-release", "/etc/machine-id"})
                findings.expect(file, opens(file) || errno == ENOENT);
        }),
        "");
}

TEST_F(SandboxTest, AProfileThatCannotBeAppliedOrDoesNotHoldIsAnError) {
    const std::string file = at("/usr/share/quorvane/sandbox/test.toml");
    EXPECT_EQ(confined("test"), "error: cannot read " + file + ": No such file or directory");
    EXPECT_EQ(confined("../sandbox/test"), "error: no profile can be named ../sandbox/test");

    const std::string refuse = "[refuse]\nEPERM = [\"execve\"]\n";
    const struct {
        std::string profile, error;
    } cases[] = {
        {"[product]\nread = [\"/etc\"", file + ": line 2: "},
        {"[product]\nraed = [\"/etc\"]\n" + refuse, file + ": product.raed: unknown key"},
        {"[network]\n" + refuse, file + ": network: unknown key"},
        {"system = 1\n" + refuse, file + ": system: a table is expected"},
        {"[system]\nread = \"/etc\"\n" + refuse, file + ": system.read: a list of texts is expected"},
        {"[system]\nread = [\"/etc\", 1]\n" + refuse, file + ": system.read: a list of texts is expected"},
        {"[system]\nread = [\"etc\"]\n" + refuse, file + ": system.read: \"etc\" is not an absolute path"},
        {"[refuse]\nEINVAL = [\"execve\"]", file + ": refuse.EINVAL: unknown key"},
        {"[refuse]\nEPERM = [\"exceve\"]", file + ": refuse.EPERM: \"exceve\" is no system call"},
        {"[refuse]\nEPERM = [\"clone3\"]", file + ": refuse.EPERM: clone3 can be refused with ENOSYS only"},
        {"[system]\nread = [\"/\"]\n" + refuse, "the sandbox does not hold: / can be opened"},
        {"[system]\nread = [\"/usr\"]\n[refuse]\nEPERM = [\"reboot\"]",
         "the sandbox cannot be proved: execve is not among the refused system calls"},
    };
    for (const auto& [profile, error] : cases) {
        writeProfile(profile);
        EXPECT_EQ(confined("test").find("error: " + error), 0u) << profile << confined("test");
    }

    writeProfile(refuse);
    EXPECT_EQ(inChild([] {
                  std::thread other(::pause);
                  const auto applied = applySandboxProfile("test");
                  other.detach();
                  return applied ? "" : applied.error().message;
              }),
              "the process has more than one thread already");

    // Folders are made, and a writable one is needed.
    writeProfile("[product]\nread = [\"/etc/a\"]\nwrite = [\"/var/b/c\"]\n" + refuse);
    EXPECT_EQ(confined("test"), "");
    EXPECT_TRUE(fs::is_directory(at("/etc/a")) && fs::is_directory(at("/var/b/c")));

    write("file", "");
    writeProfile("[product]\nread = [\"/file/a\"]\n[system]\nread = [\"/absent\"]\n" + refuse);
    EXPECT_EQ(confined("test"), "");
    writeProfile("[product]\nwrite = [\"/file/a\"]\n" + refuse);
    EXPECT_EQ(confined("test"), "error: cannot make the folder " + at("/file/a") + ": Not a directory");
}

}  // namespace
}  // namespace quorvane::platform
