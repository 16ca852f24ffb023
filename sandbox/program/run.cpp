// kspool-sandbox run: a server for as long as a command runs.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "sandbox/program/program.h"
#include "sandbox/sandbox.h"

namespace sandbox::program {
namespace {

namespace fs = std::filesystem;

// The exit codes of shells and env(1).
constexpr int kExitNotStarted = 126;
constexpr int kExitNotFound = 127;
constexpr int kExitSignal = 128;

/// Removed by the destructor.
class TemporaryFolder {
  public:
    TemporaryFolder() : path_((fs::temp_directory_path() / "kspool-sandbox-XXXXXX").string()) {
        if (mkdtemp(path_.data()) == nullptr) fail(path_ + ": " + strerror(errno));
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

std::string firstLine(const std::string& file) {
    std::ifstream stream(file);
    std::string line;
    std::getline(stream, line);
    return line;
}

void setVariable(const char* name, const std::string& value) {
    if (setenv(name, value.c_str(), 1) != 0) fail(std::string(name) + ": " + strerror(errno));
}

/// The environment of a user of the pool.
void setEnvironment(const std::string& pool, const std::string& url) {
    setVariable("KSPOOL_AGENT_CONFIG", pool + "/agent.cfg");
    setVariable("KSPOOL_LOGIN", "agent");
    setVariable("KSPOOL_PASSWORD", firstLine(pool + "/agent.password"));
    setVariable("KSPOOL_SANDBOX_URL", url);
}

/// Executes the command in the child. After a fork of a process with threads, a call must not need
/// a lock that another thread may have held; only the message after a failed exec may.
[[noreturn]] void become(char* const* arguments, const sigset_t& blocked, pid_t parent) {
    // Otherwise the command would go on without its server if this program is killed.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(kExitNotStarted);
    sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
    execvp(arguments[0], arguments);
    const int reason = errno;
    dprintf(STDERR_FILENO, "%s: %s: %s\n", kProgram, arguments[0], strerror(reason));
    _exit(reason == ENOENT ? kExitNotFound : kExitNotStarted);
}

pid_t start(const std::vector<std::string>& command, const sigset_t& blocked) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child < 0) fail(std::string("a process for the command: ") + strerror(errno));
    if (child == 0) become(arguments.data(), blocked, parent);
    return child;
}

/// Waits for the end of the command, and forwards signals that were sent to this process only. The
/// terminal sends its signals to both processes.
int await(pid_t child, const sigset_t& signals) {
    for (;;) {
        siginfo_t info{};
        const int number = sigwaitinfo(&signals, &info);
        if (number > 0 && number != SIGCHLD && info.si_code != SI_KERNEL) kill(child, number);
        int status = 0;
        if (waitpid(child, &status, WNOHANG) != child) continue;
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        if (WIFSIGNALED(status)) return kExitSignal + WTERMSIG(status);
    }
}

}  // namespace

int run(const RunOptions& options) {
    const std::string faults = faultsText(options.faults);
    const sigset_t signals = blockSignals({SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD});
    // A parent may have left SIGCHLD ignored, and then the end of the command would go unnoticed.
    signal(SIGCHLD, SIG_DFL);
    const TemporaryFolder folder;
    const std::string pool = folder.path() + "/pool";
    // The port in this URL is never used: the real one is known only once the server listens.
    const char* url = options.tls ? "https://127.0.0.1:1" : "http://127.0.0.1:1";
    setUp({pool, url, options.tls, /*sync=*/false});
    Settings settings = readSetup(pool);
    settings.port = 0;
    settings.sync = false;  // nothing outlives the command
    settings.tree = options.tree;
    settings.faults = faults;
    const Server server(settings);
    if (!server.warning().empty()) complain(server.warning());
    changeUrl(pool, server.url());
    setEnvironment(pool, server.url());
    return await(start(options.command, signals), signals);
}

}  // namespace sandbox::program
