#include "support/child_process.hpp"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

namespace velmar_2d::tests {
namespace {

constexpr unsigned child_seconds = 60;

[[noreturn]] void be_the_child(const std::function<void()>& code, std::FILE* in, std::FILE* out) {
  alarm(child_seconds);
  dup2(fileno(in), STDIN_FILENO);
  dup2(fileno(out), STDOUT_FILENO);
  std::clearerr(stdin);
  std::cin.clear();
  // Leaves std::exit() before any static destructor or leak report can change the status. Nothing
  // is flushed here: a text that must be out before the end has to be flushed by its writer.
  on_exit([](int status, void*) { _exit(status); }, nullptr);
  code();
  std::cout.flush();
  std::fflush(stdout);
  _exit(0);
}

}  // namespace

ChildEnd run_in_child(const std::function<void()>& code, std::string_view input) {
  // Files instead of pipes: neither side ever waits for the other.
  std::FILE* in = std::tmpfile();
  std::FILE* out = std::tmpfile();
  if (in == nullptr || out == nullptr) throw std::runtime_error("no temporary file");
  std::fwrite(input.data(), 1, input.size(), in);
  std::fflush(in);
  std::rewind(in);
  std::cout.flush();
  std::fflush(stdout);

  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("no child process");
  if (child == 0) be_the_child(code, in, out);
  int state = 0;
  waitpid(child, &state, 0);

  ChildEnd end;
  end.exit_status = WIFEXITED(state) ? WEXITSTATUS(state) : -1;
  std::rewind(out);
  char piece[4096];
  for (std::size_t got = 0; (got = std::fread(piece, 1, sizeof piece, out)) > 0;)
    end.output.append(piece, got);
  std::fclose(in);
  std::fclose(out);
  return end;
}

}  // namespace velmar_2d::tests
