// A pool server in a process of its own, for as long as the test lives: what is done to this
// process, or measured in it, does not touch the server.
#ifndef TESTS_SANDBOX_PROCESS_H
#define TESTS_SANDBOX_PROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "sandbox/sandbox.h"

class SandboxProcess {
  public:
    explicit SandboxProcess(const sandbox::Settings& settings) {
        int link[2];
        EXPECT_EQ(pipe2(link, O_CLOEXEC), 0);
        child_ = fork();
        if (child_ == 0) serve(settings, link[1]);
        close(link[1]);
        char text[256] = "";
        EXPECT_GT(read(link[0], text, sizeof text - 1), 0);
        close(link[0]);
        url = text;
    }
    ~SandboxProcess() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, 0);
    }
    SandboxProcess(const SandboxProcess&) = delete;
    SandboxProcess& operator=(const SandboxProcess&) = delete;

    std::string url;

  private:
    [[noreturn]] static void serve(const sandbox::Settings& settings, int answer) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        try {
            sandbox::Server server(settings);
            server.admin("POST", "clock", "1700000000");
            if (write(answer, server.url().data(), server.url().size()) < 0) _exit(1);
            for (;;)
                pause();
        } catch (...) {
            _exit(1);
        }
    }

    pid_t child_ = -1;
};

#endif
