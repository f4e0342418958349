// Runs the real zelo-fwsim program for a test, and other programs of the
// build, under the cross build's emulator when there is one.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace zelo::test {

// A temporary ZELO_ROOT for one test, removed afterwards.
class TempRoot {
  public:
    TempRoot();
    ~TempRoot();
    TempRoot(const TempRoot &) = delete;
    TempRoot &operator=(const TempRoot &) = delete;
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

class SimProcess {
  public:
    // Writes the scenario into root/scenario.scn and starts the simulator on
    // the default socket under root, with any further arguments; returns once
    // it listens.
    SimProcess(const std::string &root, const std::string &scenario,
               const std::vector<std::string> &arguments = {});
    ~SimProcess();
    SimProcess(const SimProcess &) = delete;
    SimProcess &operator=(const SimProcess &) = delete;
    void stop();
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
};

struct RunResult {
    int status = -1; // exit status, or -1 when it did not exit normally
    std::string out;
    std::string err;
};

// Runs a program of the build with the given arguments, until it exits.
RunResult runProgram(const std::string &program, const std::vector<std::string> &args);

// The same as the user nobody, with no supplementary groups: a reader that is
// not the daemon's. Needs root.
RunResult runProgramAsNobody(const std::string &program, const std::vector<std::string> &args);

// Every path under dir, sorted: what a program may have left behind.
std::vector<std::string> treeOf(const std::string &dir);

// The text of a sample scenario file (sim/scenarios).
std::string scenarioFile(const std::string &name);

} // namespace zelo::test
