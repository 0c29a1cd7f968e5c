// A scriptable stand-in for command-line tools. README.md lists the steps.
#include "script.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

extern char** environ;

namespace fake_tool
{
namespace
{
typedef std::vector<std::string> Words;

void sleep_msec(long msec)
{
  timespec rest = {msec / 1000, (msec % 1000) * 1000000};
  while (::nanosleep(&rest, &rest) != 0 && errno == EINTR)
    continue;
}

/// False on any error: what a real tool sees when its reader has gone (with SIGPIPE ignored).
bool write_all(int fd, const char* data, size_t length)
{
  while (length > 0) {
    const ssize_t count = ::write(fd, data, length);
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      return false;
    data += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

class Player
{
public:
  explicit Player(const Context& context) : context_(context) {}

  int play(const std::vector<Step>& steps)
  {
    // For each open `if`: whether its current branch runs.
    std::vector<bool> branches;
    for (const Step& step : steps) {
      const std::string& kind = step.words[0];
      const bool outer = branches.empty() || branches.back();
      if (kind == "if") {
        outer_.push_back(outer);
        branches.push_back(outer && holds(step, context_));
      } else if (kind == "else" || kind == "end") {
        if (branches.empty())
          bad_step(step, kind + " without if");
        if (kind == "else") {
          branches.back() = outer_.back() && !branches.back();
        } else {
          branches.pop_back();
          outer_.pop_back();
        }
      } else if (outer) {
        run(step);
      }
    }
    return 0;
  }

private:
  typedef void (Player::*Action)(const Words&);
  struct Entry {
    size_t min_words;
    Action action;
  };

  static const std::map<std::string, Entry>& actions();

  void run(const Step& step)
  {
    step_ = &step;
    const Words words = expand(step, context_);
    const auto found = actions().find(words[0]);
    if (found == actions().end())
      bad_step(step, "unknown step " + words[0]);
    if (words.size() < found->second.min_words)
      bad_step(step, "too few words for " + words[0]);
    (this->*found->second.action)(words);
  }

  long number(const std::string& text) const { return to_number(*step_, text); }

  void must(bool done, const std::string& what) const
  {
    if (!done)
      bad_step(*step_, what + ": " + ::strerror(errno));
  }

  /// stdout for out_*, stderr for err_*.
  static int stream(const Words& words) { return words[0][0] == 'o' ? STDOUT_FILENO : STDERR_FILENO; }

  /// A stream whose reader has gone ends a tool; so it does here.
  static void emit(int fd, const std::string& data)
  {
    if (!write_all(fd, data.data(), data.size()))
      ::_exit(123);
  }

  void out(const Words& words) { emit(stream(words), words[1] + "\n"); }
  void out_raw(const Words& words) { emit(stream(words), words[1]); }

  void out_lines(const Words& words)
  {
    std::string block;
    const size_t place = words[2].find("{n}");
    for (long n = 0, count = number(words[1]); n < count; ++n) {
      if (place == std::string::npos)
        block += words[2];
      else
        block += words[2].substr(0, place) + std::to_string(n) + words[2].substr(place + 3);
      block += '\n';
      if (block.size() >= 65536) {
        emit(stream(words), block);
        block.clear();
      }
    }
    emit(stream(words), block);
  }

  void out_bytes(const Words& words)
  {
    const std::string block(65536, words.size() > 2 ? words[2][0] : 'x');
    for (long left = number(words[1]); left > 0; left -= static_cast<long>(block.size()))
      emit(stream(words), block.substr(0, std::min<size_t>(block.size(), static_cast<size_t>(left))));
  }

  void out_file(const Words& words)
  {
    std::ifstream file(words[1], std::ios::binary);
    must(file.good(), "cannot read " + words[1]);
    std::ostringstream content;
    content << file.rdbuf();
    emit(STDOUT_FILENO, content.str());
  }

  void dump_args(const Words& words)
  {
    std::string text;
    for (const std::string& arg : context_.args)
      text += arg + "\n";
    store(words[1], text + "--\n", O_APPEND);
  }

  void dump_env(const Words& words)
  {
    std::string text;
    for (char** entry = environ; *entry; ++entry)
      text += std::string(*entry) + "\n";
    store(words[1], text, O_TRUNC);
  }

  void dump_state(const Words& words)
  {
    std::ostringstream text;
    text << "pid=" << ::getpid() << "\nppid=" << ::getppid() << "\npgid=" << ::getpgrp()
         << "\nfds=" << open_descriptors();
    sigset_t blocked;
    ::sigprocmask(SIG_SETMASK, nullptr, &blocked);
    text << "\nblocked=";
    for (int signal = 1; signal < 32; ++signal)
      if (::sigismember(&blocked, signal) == 1)
        text << signal << ",";
    text << "\npipe=" << (pipe_was_ignored ? "ignored" : "default");
    char target[256] = {};
    if (::readlink("/proc/self/fd/0", target, sizeof target - 1) < 0)
      ::strcpy(target, "closed");
    text << "\nstdin=" << target << "\n";
    store(words[1], text.str(), O_TRUNC);
  }

  static std::string open_descriptors()
  {
    std::string list;
    for (int fd = 0; fd < 1024; ++fd)
      if (::fcntl(fd, F_GETFD) >= 0)
        list += std::to_string(fd) + ",";
    return list;
  }

  void stdin_to(const Words& words) { copy_stream(STDIN_FILENO, words[1]); }

  void begin(const Words& words)
  {
    file_ = ::open(words[1].c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    must(file_ >= 0, "cannot write " + words[1]);
  }

  void put(const Words& words) { put_data(words[1]); }

  void put_u32(const Words& words)
  {
    const unsigned long value = static_cast<unsigned long>(number(words[1]));
    std::string data;
    for (unsigned shift = 0; shift < 32; shift += 8)
      data += static_cast<char>((value >> shift) & 0xff);
    put_data(data);
  }

  void put_zeros(const Words& words) { put_data(std::string(static_cast<size_t>(number(words[1])), '\0')); }

  void put_file(const Words& words)
  {
    std::ifstream file(words[1], std::ios::binary);
    must(file.good(), "cannot read " + words[1]);
    std::ostringstream content;
    content << file.rdbuf();
    put_data(content.str());
  }

  void put_pattern(const Words& words)
  {
    pattern(number(words[1]), words.size() > 2 ? number(words[2]) : 0, 65536, 0);
  }

  void put_slow(const Words& words) { pattern(number(words[1]), 0, number(words[2]), number(words[3])); }

  void pattern(long total, long seed, long block_size, long pause_msec)
  {
    std::string block;
    for (long i = 0; i < total;) {
      block.clear();
      for (const long end = std::min(total, i + block_size); i < end; ++i)
        block += static_cast<char>((i * 7 + i / 251 + seed) & 0xff);
      put_data(block);
      sleep_msec(pause_msec);
    }
  }

  void put_data(const std::string& data)
  {
    if (!write_all(file_, data.data(), data.size()))
      bad_step(*step_, std::string("cannot write: ") + ::strerror(errno));
  }

  void finish(const Words&)
  {
    ::close(file_);
    file_ = -1;
  }

  void write_pattern(const Words& words)
  {
    begin(words);
    pattern(number(words[2]), words.size() > 3 ? number(words[3]) : 0, 65536, 0);
    finish(words);
  }

  void read_to(const Words& words)
  {
    const int from = ::open(words[1].c_str(), O_RDONLY | O_CLOEXEC);
    must(from >= 0, "cannot read " + words[1]);
    copy_stream(from, words[2]);
    ::close(from);
  }

  void copy_stream(int from, const std::string& path)
  {
    const int to = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    must(to >= 0, "cannot write " + path);
    char block[65536];
    ssize_t count;
    while ((count = ::read(from, block, sizeof block)) > 0)
      must(write_all(to, block, static_cast<size_t>(count)), "cannot write " + path);
    ::close(to);
  }

  void read_some(const Words& words)
  {
    const int from = ::open(words[1].c_str(), O_RDONLY | O_CLOEXEC);
    must(from >= 0, "cannot read " + words[1]);
    char block[65536];
    for (long left = number(words[2]); left > 0;) {
      const ssize_t count = ::read(from, block, std::min<size_t>(sizeof block, static_cast<size_t>(left)));
      if (count <= 0)
        break;
      left -= count;
    }
    ::close(from);
  }

  void hold(const Words& words)
  {
    must(::open(words[1].c_str(), O_RDONLY | O_CLOEXEC) >= 0, "cannot read " + words[1]);
  }

  void store(const std::string& path, const std::string& text, int how) const
  {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | how, 0644);
    must(fd >= 0 && write_all(fd, text.data(), text.size()), "cannot write " + path);
    ::close(fd);
  }

  void write_file(const Words& words) { store(words[1], words[2], O_TRUNC); }
  void append_file(const Words& words) { store(words[1], words[2], O_APPEND); }
  void copy(const Words& words) { read_to(words); }

  /// As copy, but who reads the file meanwhile, or after a kill, sees all of the old or all of the new content.
  void replace(const Words& words)
  {
    const std::string made = words[2] + "." + std::to_string(::getpid());
    read_to({words[0], words[1], made});
    must(::rename(made.c_str(), words[2].c_str()) == 0, "cannot replace " + words[2]);
  }
  void remove(const Words& words) { ::unlink(words[1].c_str()); }
  void make_dir(const Words& words)
  {
    must(::mkdir(words[1].c_str(), 0755) == 0 || errno == EEXIST, "mkdir");
  }

  void wait_file(const Words& words)
  {
    for (int tries = 0; ::access(words[1].c_str(), F_OK) != 0; ++tries) {
      if (tries == 30000)
        ::_exit(122);
      sleep_msec(2);
    }
  }

  void sleep(const Words& words) { sleep_msec(number(words[1])); }

  void hang(const Words&)
  {
    for (;;)
      ::pause();
  }

  int signal_number(const std::string& name) const
  {
    static const std::map<std::string, int> names = {{"TERM", SIGTERM}, {"INT", SIGINT},   {"HUP", SIGHUP},
                                                     {"PIPE", SIGPIPE}, {"USR1", SIGUSR1}, {"KILL", SIGKILL},
                                                     {"SEGV", SIGSEGV}, {"ABRT", SIGABRT}, {"STOP", SIGSTOP}};
    const auto found = names.find(name);
    if (found == names.end())
      bad_step(*step_, "unknown signal " + name);
    return found->second;
  }

  void ignore(const Words& words) { ::signal(signal_number(words[1]), SIG_IGN); }
  void set_default(const Words& words) { ::signal(signal_number(words[1]), SIG_DFL); }

  void die(const Words& words)
  {
    const int signal = signal_number(words[1]);
    ::signal(signal, SIG_DFL);
    ::raise(signal);
    hang(words);
  }

  void close(const Words& words)
  {
    ::close(words[1] == "stdin" ? STDIN_FILENO : words[1] == "stdout" ? STDOUT_FILENO : STDERR_FILENO);
  }

  void grandchild(const Words& words)
  {
    const pid_t pid = ::fork();
    must(pid >= 0, "cannot fork");
    if (pid == 0) {
      if (words.size() > 3)
        ::setsid();
      sleep_msec(number(words[1]));
      ::_exit(0);
    }
    if (words.size() > 2)
      store(words[2], std::to_string(pid), O_TRUNC);
  }

  void exit(const Words& words) { ::_exit(static_cast<int>(number(words[1]))); }

  const Context& context_;
  const Step* step_ = nullptr;
  std::vector<bool> outer_;
  int file_ = -1;

public:
  static bool pipe_was_ignored;
};

bool Player::pipe_was_ignored = false;

const std::map<std::string, Player::Entry>& Player::actions()
{
  static const std::map<std::string, Entry> table = {
      {"out", {2, &Player::out}},
      {"err", {2, &Player::out}},
      {"out_raw", {2, &Player::out_raw}},
      {"err_raw", {2, &Player::out_raw}},
      {"out_lines", {3, &Player::out_lines}},
      {"err_lines", {3, &Player::out_lines}},
      {"out_bytes", {2, &Player::out_bytes}},
      {"err_bytes", {2, &Player::out_bytes}},
      {"out_file", {2, &Player::out_file}},
      {"dump_args", {2, &Player::dump_args}},
      {"dump_env", {2, &Player::dump_env}},
      {"dump_state", {2, &Player::dump_state}},
      {"stdin_to", {2, &Player::stdin_to}},
      {"begin", {2, &Player::begin}},
      {"put", {2, &Player::put}},
      {"put_u32", {2, &Player::put_u32}},
      {"put_zeros", {2, &Player::put_zeros}},
      {"put_file", {2, &Player::put_file}},
      {"put_pattern", {2, &Player::put_pattern}},
      {"put_slow", {4, &Player::put_slow}},
      {"finish", {1, &Player::finish}},
      {"write_pattern", {3, &Player::write_pattern}},
      {"read_to", {3, &Player::read_to}},
      {"read_some", {3, &Player::read_some}},
      {"hold", {2, &Player::hold}},
      {"write_file", {3, &Player::write_file}},
      {"append_file", {3, &Player::append_file}},
      {"copy", {3, &Player::copy}},
      {"replace", {3, &Player::replace}},
      {"remove", {2, &Player::remove}},
      {"make_dir", {2, &Player::make_dir}},
      {"wait_file", {2, &Player::wait_file}},
      {"sleep", {2, &Player::sleep}},
      {"hang", {1, &Player::hang}},
      {"ignore", {2, &Player::ignore}},
      {"default", {2, &Player::set_default}},
      {"die", {2, &Player::die}},
      {"close", {2, &Player::close}},
      {"grandchild", {2, &Player::grandchild}},
      {"exit", {2, &Player::exit}},
  };
  return table;
}
} // namespace
} // namespace fake_tool

int main(int argc, char** argv)
{
  struct sigaction pipe_action;
  ::sigaction(SIGPIPE, nullptr, &pipe_action);
  fake_tool::Player::pipe_was_ignored = pipe_action.sa_handler == SIG_IGN;
  // A write to a reader that has gone must be seen as a failing write.
  ::signal(SIGPIPE, SIG_IGN);

  fake_tool::Context context;
  context.args.assign(argv, argv + argc);
  const char* const named = ::getenv("FAKE_TOOL_SCRIPT");
  context.script = named && *named ? named : context.args[0] + ".script";
  std::ifstream file(context.script, std::ios::binary);
  if (!file) {
    ::fprintf(stderr, "fake_tool: no script %s\n", context.script.c_str());
    return 121;
  }
  std::ostringstream text;
  text << file.rdbuf();
  return fake_tool::Player(context).play(fake_tool::parse(text.str()));
}
