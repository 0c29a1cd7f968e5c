#include "cli/progress_display.h"

#include "base/clock.h"
#include "cli/text_format.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
constexpr int64_t redraw_interval_msec = 100;
constexpr int default_columns = 80;

int terminal_columns(std::FILE* stream)
{
  struct winsize size = {};
  if (::ioctl(::fileno(stream), TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
    return size.ws_col;
  return default_columns;
}

/// Bytes are foreign numbers (a tool announces the total): a count past the total is shown as all of it.
double share_of(uint64_t done_bytes, uint64_t total_bytes)
{
  return total_bytes ? std::min(1.0, static_cast<double>(done_bytes) / static_cast<double>(total_bytes)) : 0.0;
}
} // namespace

Progress_Display::Mode progress_mode_of(std::FILE* stream)
{
  const char* terminal = std::getenv("TERM");
  const bool can_draw = ::isatty(::fileno(stream)) && terminal && std::strcmp(terminal, "dumb") != 0;
  return can_draw ? Progress_Display::Mode::bar : Progress_Display::Mode::lines;
}

Progress_Display::Progress_Display(std::FILE* stream, Mode mode, std::string label)
    : stream_(stream), mode_(mode), label_(std::move(label))
{
}

Progress_Display::~Progress_Display() { finish(); }

std::string Progress_Display::rate_text(int64_t now_msec) const
{
  const int64_t elapsed_msec = now_msec - first_update_msec_;
  if (elapsed_msec < 500 || done_bytes_ <= first_update_bytes_)
    return "";
  const double bytes_per_msec =
      static_cast<double>(done_bytes_ - first_update_bytes_) / static_cast<double>(elapsed_msec);
  std::string text = format_bytes(static_cast<uint64_t>(bytes_per_msec * 1000)) + "/s";
  if (total_bytes_ > done_bytes_)
    text += "  " +
            format_duration(std::llround(static_cast<double>(total_bytes_ - done_bytes_) / bytes_per_msec / 1000)) +
            " left";
  return text;
}

void Progress_Display::draw_bar(int64_t now_msec)
{
  const double share = share_of(done_bytes_, total_bytes_);
  char percent[8];
  std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(share * 100));
  const std::string tail =
      std::string(" ") + percent + "  " + format_bytes(done_bytes_) + "  " + rate_text(now_msec);
  const int room = terminal_columns(stream_) - 1 - static_cast<int>(label_.size() + tail.size()) - 3;
  std::string line = label_;
  if (room >= 10) {
    const int width = std::min(room, 40);
    const int full = static_cast<int>(share * width);
    line += " [" + std::string(static_cast<size_t>(full), '#') + std::string(static_cast<size_t>(width - full), '.') + "]";
  }
  line += tail;
  line.resize(std::min(line.size(), static_cast<size_t>(terminal_columns(stream_) - 1)));
  std::fprintf(stream_, "\r\033[K%s", line.c_str());
  std::fflush(stream_);
  bar_on_screen_ = true;
  last_draw_msec_ = now_msec;
}

void Progress_Display::erase_bar()
{
  if (!bar_on_screen_)
    return;
  std::fputs("\r\033[K", stream_);
  std::fflush(stream_);
  bar_on_screen_ = false;
}

void Progress_Display::update(uint64_t done_bytes, uint64_t total_bytes)
{
  const int64_t now_msec = clock().monotonic_msec();
  if (first_update_msec_ < 0) {
    first_update_msec_ = now_msec;
    first_update_bytes_ = done_bytes;
  }
  done_bytes_ = done_bytes;
  total_bytes_ = total_bytes;
  if (mode_ == Mode::bar && (last_draw_msec_ < 0 || now_msec - last_draw_msec_ >= redraw_interval_msec))
    draw_bar(now_msec);
  if (mode_ != Mode::lines)
    return;
  const int tenth = static_cast<int>(share_of(done_bytes, total_bytes) * 10);
  if (tenth > last_tenth_) {
    last_tenth_ = tenth;
    const std::string rate = rate_text(now_msec);
    std::fprintf(stream_, "%s: %d%% of %s%s%s\n", label_.c_str(), tenth * 10, format_bytes(total_bytes).c_str(),
                 rate.empty() ? "" : "  ", rate.c_str());
    std::fflush(stream_);
  }
}

void Progress_Display::note(const std::string& text)
{
  if (mode_ == Mode::quiet)
    return;
  erase_bar();
  std::fprintf(stream_, "%s\n", text.c_str());
  std::fflush(stream_);
}

void Progress_Display::finish() { erase_bar(); }
} // namespace kestrel
