// Runs the built certcache binary as a person or a script would: with
// arguments, standard input, environment variables and extra file
// descriptors, and collects its output and exit status.
#ifndef TAVIK_TESTS_TOOL_TOOLRUNNER_H_
#define TAVIK_TESTS_TOOL_TOOLRUNNER_H_

#include <map>
#include <string>
#include <vector>

namespace tavik {
namespace test {

struct ToolRun {
  std::vector<std::string> args;           // after the program name
  std::string input;                       // standard input (empty: nothing, at EOF)
  std::map<std::string, std::string> env;  // set in the tool's environment
  std::map<int, std::string> descriptors;  // extra descriptors, each reading this text
  std::string stdoutPath;                  // standard output to this file instead
};

struct ToolResult {
  int status = -1;  // the exit status; -1 when the tool did not exit normally
  std::string out;
  std::string err;

  // Standard error's lines.
  std::vector<std::string> errLines() const;
};

// The path of the certcache binary under test.
const std::string& toolPath();

ToolResult runTool(const ToolRun& run);
ToolResult runTool(const std::vector<std::string>& args, const std::string& input = "");

// Runs the tool on a pseudo-terminal and types each of `answers` (plus a
// newline) after its prompt appears. `screen` receives everything the terminal
// showed.
ToolResult runToolOnTerminal(const std::vector<std::string>& args,
                             const std::vector<std::string>& answers, std::string& screen);

}  // namespace test
}  // namespace tavik

#endif  // TAVIK_TESTS_TOOL_TOOLRUNNER_H_
