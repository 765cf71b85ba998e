#include "tool/toolrunner.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "support/testsupport.h"

namespace tavik {
namespace test {

namespace {

int exitStatus(int waitStatus) { return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1; }

std::vector<char*> argv(const std::vector<std::string>& args) {
  std::vector<char*> result;
  result.push_back(const_cast<char*>(toolPath().c_str()));
  for (const std::string& arg : args) result.push_back(const_cast<char*>(arg.c_str()));
  result.push_back(nullptr);
  return result;
}

// In the child: the variables a person's shell might have set must not choose
// the store behind a test's back.
void cleanEnvironment(const std::map<std::string, std::string>& env) {
  ::unsetenv("CERTCACHE_STORE");
  for (const auto& entry : env) ::setenv(entry.first.c_str(), entry.second.c_str(), 1);
}

void redirect(const std::string& path, int fd, int flags) {
  const int opened = ::open(path.c_str(), flags, 0600);
  if (opened < 0 || ::dup2(opened, fd) < 0) ::_exit(127);
  ::close(opened);
}

}  // namespace

std::vector<std::string> ToolResult::errLines() const {
  std::vector<std::string> lines;
  std::istringstream stream(err);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

const std::string& toolPath() {
  static const std::string path = CERTCACHE_BINARY;
  return path;
}

ToolResult runTool(const ToolRun& run) {
  TempDir scratch;
  const std::string inPath = scratch / "stdin";
  const std::string outPath = run.stdoutPath.empty() ? scratch / "stdout" : run.stdoutPath;
  const std::string errPath = scratch / "stderr";
  writeFile(inPath, run.input);
  std::map<int, std::string> descriptorFiles;
  for (const auto& entry : run.descriptors) {
    descriptorFiles[entry.first] = scratch / ("fd" + std::to_string(entry.first));
    writeFile(descriptorFiles[entry.first], entry.second);
  }
  std::vector<char*> args = argv(run.args);

  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    redirect(inPath, STDIN_FILENO, O_RDONLY);
    redirect(outPath, STDOUT_FILENO, O_WRONLY | O_CREAT | O_TRUNC);
    redirect(errPath, STDERR_FILENO, O_WRONLY | O_CREAT | O_TRUNC);
    for (const auto& entry : descriptorFiles) redirect(entry.second, entry.first, O_RDONLY);
    cleanEnvironment(run.env);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  int waitStatus = 0;
  ::waitpid(child, &waitStatus, 0);
  ToolResult result;
  result.status = exitStatus(waitStatus);
  if (run.stdoutPath.empty()) result.out = readFile(outPath);
  result.err = readFile(errPath);
  return result;
}

ToolResult runTool(const std::vector<std::string>& args, const std::string& input) {
  ToolRun run;
  run.args = args;
  run.input = input;
  return runTool(run);
}

ToolResult runToolOnTerminal(const std::vector<std::string>& args,
                             const std::vector<std::string>& answers, std::string& screen) {
  std::vector<char*> argvector = argv(args);
  int master = -1;
  const pid_t child = ::forkpty(&master, nullptr, nullptr, nullptr);
  if (child < 0) throw std::runtime_error("forkpty failed");
  if (child == 0) {
    cleanEnvironment({});
    ::execv(argvector[0], argvector.data());
    ::_exit(127);
  }
  // Reads what the terminal shows; after each prompt ("...: ") the next answer
  // is typed. Bounded in time so that a tool that hangs fails the test.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  std::size_t answered = 0;
  std::size_t promptsSeen = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd poller{master, POLLIN, 0};
    if (::poll(&poller, 1, 200) <= 0) continue;
    char buffer[512];
    const ssize_t got = ::read(master, buffer, sizeof buffer);
    if (got <= 0) break;  // the tool closed the terminal: it has exited
    screen.append(buffer, static_cast<std::size_t>(got));
    std::size_t prompts = 0;
    for (std::size_t at = screen.find("Password"); at != std::string::npos;
         at = screen.find("Password", at + 1)) {
      if (screen.find(": ", at) != std::string::npos) ++prompts;
    }
    while (promptsSeen < prompts) {
      ++promptsSeen;
      if (answered < answers.size()) {
        const std::string typed = answers[answered++] + "\n";
        if (::write(master, typed.data(), typed.size()) < 0) break;
      }
    }
  }
  int waitStatus = 0;
  if (::waitpid(child, &waitStatus, WNOHANG) == 0) {
    ::kill(child, SIGKILL);  // still waiting for input that will not come
    ::waitpid(child, &waitStatus, 0);
  }
  ::close(master);
  ToolResult result;
  result.status = exitStatus(waitStatus);
  return result;
}

}  // namespace test
}  // namespace tavik
