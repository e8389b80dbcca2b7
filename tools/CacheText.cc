#include "CacheText.h"

#include "Printable.h"
#include "ReportWords.h"
#include "TextWidth.h"
#include "Tree.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <string_view>
#include <utility>

namespace Velantrix::Tool {

using Crypto::PKX509::CRLCacheView;

namespace {

constexpr std::size_t kMostTextLines = 4;  // of one text of a stranger
// Columns, with two blanks between them.
constexpr std::size_t kLeft = 18;
constexpr std::size_t kNumber = 14;
constexpr std::size_t kEntries = 8;
constexpr std::size_t kSize = 8;

struct Unit {
  std::int64_t seconds;
  std::string_view name;
};
constexpr std::array kUnits = {Unit{86400, " d"}, Unit{3600, " h"}, Unit{60, " min"},
                               Unit{1, " s"}};

std::string left(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, columnsOf(text)), ' ');
}
std::string right(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, columnsOf(text)), ' ') + text;
}

// The largest unit alone: how long ago something was need not be told to the minute.
std::string shortSpan(std::int64_t seconds) {
  for (const Unit& unit : kUnits) {
    if (seconds >= unit.seconds) {
      return std::to_string(seconds / unit.seconds).append(unit.name);
    }
  }
  return "0 s";
}

std::string agoText(const Time& then, const Time& now) {
  const std::int64_t seconds = now.seconds() - then.seconds();
  return seconds < 0 ? "in " + shortSpan(-seconds) : shortSpan(seconds) + " ago";
}

std::string lastFetch(const CacheFile& file, const Time& now) {
  if (file.failure) return "failed " + agoText(file.failure->at, now);
  return file.fetched ? agoText(*file.fetched, now) : "stored " + agoText(file.stored, now);
}

std::string stateText(const CacheFile& file, const Time& now) {
  switch (file.state) {
    case CacheFile::State::kFresh:
    case CacheFile::State::kExpired:
      return timeLeftText(file.expires->seconds() - now.seconds());
    case CacheFile::State::kUnreadable:
      break;
  }
  return "cannot be read";
}

Tree::Paint paintOf(const CacheFile& file) {
  if (file.state != CacheFile::State::kFresh) return Tree::Paint::kBad;
  return file.failure ? Tree::Paint::kUncertain : Tree::Paint::kGood;
}

std::string failureText(const CRLCacheView::Failure& failure, const Time& now) {
  std::string text = failure.inARow > 1
                         ? "failed " + std::to_string(failure.inARow) + " times in a row: "
                         : "failed: ";
  text += failure.reason;
  const std::int64_t pause = failure.until.seconds() - now.seconds();
  return pause > 0 ? text + "; not asked for " + spanText(pause) : text;
}

std::string failingText(CRLCacheView::Failing::Of of) {
  switch (of) {
    case CRLCacheView::Failing::Of::kHost:
      return "a host, nothing from it";
    case CRLCacheView::Failing::Of::kResponder:
      return "an OCSP responder";
    case CRLCacheView::Failing::Of::kURI:
      break;
  }
  return "not there";
}

std::string fileNameOf(const CacheFile& file) {
  return std::filesystem::path(file.file).filename().string();
}

std::string datesText(const CacheFile& file) {
  const std::string from = file.thisUpdate ? timeText(*file.thisUpdate) : "?";
  const std::string to = file.nextUpdate ? timeText(*file.nextUpdate) : "no stated end";
  return from + " to " + to + ", in " + fileNameOf(file);
}

void append(std::string& text, std::size_t count, const char* words) {
  if (count != 0) text += ", " + std::to_string(count) + words;
}

}  // namespace

std::string spanText(std::int64_t seconds) {
  constexpr std::int64_t kDaysAlone = std::int64_t{100} * 86400;
  const auto* const first = std::find_if(kUnits.begin(), kUnits.end(),
                                         [&](const Unit& unit) { return seconds >= unit.seconds; });
  if (first == kUnits.end()) return "0 s";
  std::string text = std::to_string(seconds / first->seconds).append(first->name);
  const auto* const second = first + 1;
  if (second == kUnits.end() || seconds >= kDaysAlone) return text;
  const std::int64_t rest = seconds % first->seconds / second->seconds;
  return rest == 0 ? text : text + ' ' + std::to_string(rest).append(second->name);
}

std::string timeLeftText(std::int64_t seconds) {
  return seconds < 0 ? "expired " + shortSpan(-seconds) + " ago" : spanText(seconds) + " left";
}

std::string sizeText(std::uint64_t octets) {
  constexpr std::uint64_t kKibi = 1024;
  if (octets < kKibi) return std::to_string(octets) + " B";
  if (octets < kKibi * kKibi) return std::to_string(octets / kKibi) + " KiB";
  const std::uint64_t tenths = octets * 10 / (kKibi * kKibi);
  return std::to_string(tenths / 10) + '.' + std::to_string(tenths % 10) + " MiB";
}

std::string CacheTable::add(const CacheFile& file) {
  ++files_;
  if (file.state == CacheFile::State::kExpired) ++expired_;
  if (file.state == CacheFile::State::kUnreadable) ++unreadable_;
  if (file.failure) ++failing_;
  octets_ += file.size;
  return heading() + columns(file) + details(file);
}

std::string CacheTable::heading() {
  if (std::exchange(headed_, true)) return {};
  return left("TIME LEFT", kLeft) + "  " + right("NUMBER", kNumber) + "  " +
         right("ENTRIES", kEntries) + "  " + right("SIZE", kSize) + "  LAST FETCH\n";
}

std::string CacheTable::add(const CRLCacheView::Failing& failing) {
  ++missing_;
  constexpr std::size_t kUpToLastFetch = kLeft + kNumber + kEntries + kSize + 8;
  // Padded before it is painted, as colours have no width.
  const std::string state = left(failingText(failing.of), kUpToLastFetch);
  return heading() + painted(state, Tree::Paint::kUncertain, style_) + "failed " +
         agoText(failing.failure.at, now_) + '\n' +
         paragraphOf(failing.place, Tree::Paint::kStrong) +
         paragraphOf(failureText(failing.failure, now_), Tree::Paint::kUncertain);
}

std::string CacheTable::paragraphOf(const std::string& text, Tree::Paint paint) const {
  return text.empty() ? text : paragraph(text, style_, paint, kMostTextLines);
}

std::string CacheTable::sum() const {
  std::string text = "the cache is empty";
  if (files_ != 0) {
    text = std::to_string(files_) + (files_ == 1 ? " file, " : " files, ") + sizeText(octets_);
  }
  append(text, expired_, " expired");
  append(text, unreadable_, " cannot be read");
  append(text, failing_, " failed at the last fetch");
  append(text, missing_, " without a file failed");
  return text + '\n';
}

std::string CacheTable::columns(const CacheFile& file) const {
  const std::string number = shortened(file.number, kNumber, style_.utf8 ? "\u2026" : "...");
  return painted(left(stateText(file, now_), kLeft), paintOf(file), style_) + "  " +
         right(number, kNumber) + "  " +
         right(file.hasCRL() ? std::to_string(file.entries) : "", kEntries) + "  " +
         right(sizeText(file.size), kSize) + "  " + lastFetch(file, now_) + '\n';
}

std::string CacheTable::details(const CacheFile& file) const {
  std::string out = paragraphOf(file.uri, Tree::Paint::kStrong) + paragraphOf(file.issuer);
  if (file.hasCRL()) out += paragraphOf(datesText(file));
  if (!file.problem.empty()) {
    out += paragraphOf(fileNameOf(file) + ": " + file.problem, Tree::Paint::kBad);
  }
  if (file.failure) out += paragraphOf(failureText(*file.failure, now_), Tree::Paint::kUncertain);
  return out;
}

}  // namespace Velantrix::Tool
