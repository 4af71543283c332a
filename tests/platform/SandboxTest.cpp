#include "platform/Sandbox.h"

#include "platform/CodeBundle.h"

#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace quorvane::platform {
namespace {

namespace fs = std::filesystem;

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
    const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (descriptor >= 0) ::close(descriptor);
    return descriptor >= 0;
}

bool isRefused(const std::string& path, int flags = O_RDONLY) {
    return !opens(path, flags) && (errno == EACCES || errno == EPERM);
}

bool lists(const std::string& path) {
    DIR* folder = ::opendir(path.c_str());
    if (folder != nullptr) ::closedir(folder);
    return folder != nullptr;
}

bool failsWith(int error, long result) {
    return result == -1 && errno == error;
}

int boundSocket(const std::string& path, int type = SOCK_STREAM) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    return ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? socket : -1;
}

bool sendsDatagram(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const auto sent =
        ::sendto(socket, "text", 4, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::close(socket);
    return sent == 4;
}

void write(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
}

std::string read(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Runs the function in a process of its own and answers its text.
std::string inChild(const std::function<std::string()>& function) {
    int ends[2];
    if (::pipe(ends) != 0) return "no pipe";
    const pid_t child = ::fork();
    if (child == 0) {
        const std::string text = function();
        const auto written = ::write(ends[1], text.data(), text.size());
        ::_exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
    }
    ::close(ends[1]);
    std::string text;
    char buffer[512];
    for (ssize_t got; (got = ::read(ends[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<std::size_t>(got));
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0
               ? text
               : text + "died with status " + std::to_string(status);
}

class SandboxTest : public testing::Test {
  protected:
    void SetUp() override {
        std::string folder = (fs::temp_directory_path() / "quorvane-sandbox-XXXXXX").string();
        ASSERT_NE(::mkdtemp(folder.data()), nullptr);
        _root = folder;
        ::setenv("QUORVANE_ROOT", _root.c_str(), 1);
    }
    void TearDown() override { fs::remove_all(_root); }

    std::string at(const std::string& path) const { return _root + path; }
    void writeProfile(const std::string& text) const {
        write(at("/usr/share/quorvane/sandbox/test.toml"), text);
    }

    /// The error of applying the profile, or what the probe finds after it.
    static std::string confined(const std::string& profile,
                                const std::function<void(Findings&)>& probe = {}) {
        return inChild([&] {
            if (const auto error = applySandboxProfile(profile)) return "error: " + *error;
            Findings findings;
            if (probe) probe(findings);
            return findings.text();
        });
    }

    /// As above, under the profile that the daemon ships with.
    std::string confinedAsShipped(const std::function<void(Findings&)>& probe) const {
        const std::string name = "com.velmora.quorvaned";
        write(at("/usr/share/quorvane/sandbox/" + name + ".toml"), read(QUORVANE_SHIPPED_PROFILE));
        return confined(name, probe);
    }

    std::string _root;
};

TEST_F(SandboxTest, ConfigurationIsReadableAndNothingMore) {
    const std::string file = at("/etc/quorvane/device.toml");
    write(file, "ProductType = \"Q1\"");
    EXPECT_EQ(confinedAsShipped([&](Findings& findings) {
                  findings.expect("a file opens", opens(file));
                  findings.expect("the folder lists", lists(at("/etc/quorvane")));
                  findings.expect("a file is not written", isRefused(file, O_WRONLY));
                  findings.expect("a file is not emptied", isRefused(file, O_RDONLY | O_TRUNC));
                  findings.expect("a file is not cut", failsWith(EPERM, ::truncate(file.c_str(), 0)));
                  findings.expect("no file is made", isRefused(at("/etc/quorvane/new"), O_WRONLY | O_CREAT));
                  findings.expect("no file is removed", failsWith(EACCES, ::unlink(file.c_str())));
              }),
              "");
    EXPECT_EQ(read(file), "ProductType = \"Q1\"");
}

TEST_F(SandboxTest, StateAndMessageLogAreWritable) {
    EXPECT_EQ(
        confinedAsShipped([&](Findings& findings) {
            const std::string state = at("/var/lib/quorvane/"),
                              log = at("/var/mobile/Library/Logs/Faultrel/");
            findings.expect("a file is made", opens(state + "new", O_WRONLY | O_CREAT | O_EXCL));
            findings.expect("it is renamed", ::rename((state + "new").c_str(), (state + "id").c_str()) == 0);
            findings.expect("it is emptied", opens(state + "id", O_WRONLY | O_TRUNC));
            findings.expect("it is removed", ::unlink((state + "id").c_str()) == 0);
            findings.expect("no link is made", failsWith(EACCES, ::symlink("/", (state + "link").c_str())));
            findings.expect("the log's folder is made", ::mkdir((log + "Retired").c_str(), 0755) == 0);
            findings.expect("and written", opens(log + "Retired/a", O_WRONLY | O_CREAT));
            findings.expect("not so above", isRefused(at("/var/mobile/Library/a"), O_WRONLY | O_CREAT));
        }),
        "");
}

TEST_F(SandboxTest, TheServiceSocketIsMadeServedAndRemoved) {
    const std::string stale = at("/run/quorvane/socket");
    fs::create_directories(at("/run/quorvane"));
    ::close(boundSocket(stale));
    EXPECT_EQ(confinedAsShipped([&](Findings& findings) {
                  findings.expect("the stale one is removed", ::unlink(stale.c_str()) == 0);
                  const int socket = boundSocket(stale);
                  findings.expect("a new one is bound", socket >= 0);
                  findings.expect("it is opened to all", ::chmod(stale.c_str(), 0666) == 0);
                  findings.expect("it listens", ::listen(socket, 1) == 0);
                  findings.expect("no file is made", isRefused(at("/run/quorvane/a"), O_WRONLY | O_CREAT));
                  findings.expect("no socket elsewhere", boundSocket(at("/var/lib/quorvane/socket")) == -1);
              }),
              "");
}

TEST_F(SandboxTest, CodeOpensButIsNotListed) {
    write(at("/usr/lib/quorvane/OsselAdaptor.so"), "code");
    EXPECT_EQ(confinedAsShipped([&](Findings& findings) {
                  findings.expect("a file opens", opens(at("/usr/lib/quorvane/OsselAdaptor.so")));
                  findings.expect("the folder does not list", !lists(at("/usr/lib/quorvane")));
              }),
              "");
}

TEST_F(SandboxTest, AnAdaptorLoadsAndWritesWhatItIsGiven) {
    const std::string path = at("/usr/lib/quorvane/OsselAdaptor.so");
    fs::create_directories(at("/usr/lib/quorvane"));
    fs::copy_file(QUORVANE_BUNDLE_SAMPLE, path);
    EXPECT_EQ(confinedAsShipped([&](Findings& findings) {
                  const auto adaptor = CodeObject::init(classNamed(loadCodeBundle(path), "OsselAdaptor"));
                  findings.expect("an adaptor is made", adaptor != nullptr);
                  if (adaptor == nullptr) return;
                  const auto* operation =
                      adaptor->operationWithSelector("sendMessageWithMethod:respCode:dict:");
                  adaptor->invoke(*operation, 5, 200, {});
              }),
              "");
    EXPECT_NE(read(at("/var/lib/quorvane/ossel-messages.log")).find(" method=5 respCode=200 (null)\n"),
              std::string::npos);
}

TEST_F(SandboxTest, TheSocketsOfTheSystemsLogsAreReached) {
    const std::string journal = at("/run/systemd/journal/socket");
    fs::create_directories(at("/run/systemd/journal"));
    const int socket = boundSocket(journal, SOCK_DGRAM);
    EXPECT_EQ(confinedAsShipped([&](Findings& findings) {
                  findings.expect("it can be seen", ::access(journal.c_str(), F_OK) == 0);
                  findings.expect("a datagram is sent", sendsDatagram(journal));
              }),
              "");
    char text[8];
    EXPECT_EQ(::recv(socket, text, sizeof text, MSG_DONTWAIT), 4);
    ::close(socket);
}

TEST_F(SandboxTest, WhatIsOutsideStaysOutside) {
    write(at("/home/secret"), "secret");
    const int before = ::open(at("/home/secret").c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(confinedAsShipped([&](Findings& findings) {
                  findings.expect("a file is refused", isRefused(at("/home/secret")));
                  findings.expect("also through a link of /proc",
                                  isRefused("/proc/self/fd/" + std::to_string(before)));
                  findings.expect("system accounts are refused", isRefused("/etc/passwd"));
                  findings.expect("the environment is refused", isRefused("/proc/self/environ"));
                  findings.expect("folders are refused", !lists(_root) && !lists("/") && !lists("/etc"));
                  char letter = 0;
                  findings.expect("an open descriptor still reads", ::read(before, &letter, 1) == 1);
                  findings.expect("facts can be asked for", ::access(at("/home/secret").c_str(), F_OK) == 0);
              }),
              "");
    ::close(before);
}

TEST_F(SandboxTest, DangerousSystemCallsAreRefused) {
    EXPECT_EQ(confinedAsShipped([](Findings& findings) {
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

TEST_F(SandboxTest, AProfileThatCannotBeAppliedIsAnError) {
    const std::string file = at("/usr/share/quorvane/sandbox/test.toml");
    EXPECT_EQ(confined("test"), "error: cannot read " + file + ": No such file or directory");
    EXPECT_EQ(confined("../sandbox/test"), "error: no profile can be named ../sandbox/test");

    const std::string refuse = "[refuse]\nEPERM = [\"execve\"]\n";
    const struct {
        std::string profile, error;
    } cases[] = {
        {"[product]\nread = [\"/etc\"", ": line 2: "},
        {"[product]\nraed = [\"/etc\"]\n" + refuse, ": product.raed: unknown key"},
        {"[network]\n" + refuse, ": network: unknown key"},
        {"system = 1\n" + refuse, ": system: a table is expected"},
        {"[system]\nread = \"/etc\"\n" + refuse, ": system.read: a list of texts is expected"},
        {"[system]\nread = [\"/etc\", 1]\n" + refuse, ": system.read: a list of texts is expected"},
        {"[system]\nread = [\"etc\"]\n" + refuse, ": system.read: \"etc\" is not an absolute path"},
        {"[refuse]\nEINVAL = [\"execve\"]", ": refuse.EINVAL: unknown key"},
        {"[refuse]\nEPERM = [\"exceve\"]", ": refuse.EPERM: \"exceve\" is no system call"},
        {"[refuse]\nEPERM = [\"clone3\"]", ": refuse.EPERM: clone3 can be refused with ENOSYS only"},
    };
    for (const auto& [profile, error] : cases) {
        writeProfile(profile);
        EXPECT_EQ(confined("test").find("error: " + file + error), 0u) << profile << confined("test");
    }
}

TEST_F(SandboxTest, AProfileThatDoesNotHoldIsAnError) {
    writeProfile("[system]\nread = [\"/\"]\n[refuse]\nEPERM = [\"execve\"]");
    EXPECT_EQ(confined("test"), "error: the sandbox does not hold: / can be opened");
    writeProfile("[system]\nread = [\"/usr\"]\n[refuse]\nEPERM = [\"reboot\"]");
    EXPECT_EQ(confined("test"),
              "error: the sandbox cannot be proved: execve is not among the refused system calls");
}

TEST_F(SandboxTest, FoldersAreMadeAndAWritableOneIsNeeded) {
    const std::string refuse = "[refuse]\nEPERM = [\"execve\"]\n";
    writeProfile("[product]\nread = [\"/etc/a\"]\nwrite = [\"/var/b/c\"]\n" + refuse);
    EXPECT_EQ(confined("test"), "");
    EXPECT_TRUE(fs::is_directory(at("/etc/a")) && fs::is_directory(at("/var/b/c")));

    write(at("/file"), "");
    writeProfile("[product]\nread = [\"/file/a\"]\n[system]\nread = [\"/absent\"]\n" + refuse);
    EXPECT_EQ(confined("test"), "");
    writeProfile("[product]\nwrite = [\"/file/a\"]\n" + refuse);
    EXPECT_EQ(confined("test"), "error: cannot make the folder " + at("/file/a") + ": Not a directory");
}

TEST_F(SandboxTest, ASecondThreadIsAnError) {
    writeProfile("[refuse]\nEPERM = [\"execve\"]");
    EXPECT_EQ(inChild([] {
                  std::thread other(::pause);
                  const auto error = applySandboxProfile("test");
                  other.detach();
                  return error.value_or("");
              }),
              "the process has more than one thread already");
}

}  // namespace
}  // namespace quorvane::platform
