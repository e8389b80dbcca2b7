#include "Tree.h"

#include "Printable.h"
#include "TextWidth.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace Velantrix::Tool {

namespace {

constexpr std::size_t kMostLines = 4;    // of one text
constexpr std::size_t kLeastWidth = 16;  // of one line of a text, however deep it stands

struct Branches {
  std::string_view fork;
  std::string_view last;
  std::string_view trunk;
  std::string_view ellipsis;
};

constexpr Branches kBoxes = {"\u251c\u2500 ", "\u2514\u2500 ", "\u2502  ", "\u2026"};
constexpr Branches kAscii = {"|- ", "`- ", "|  ", "..."};
constexpr std::string_view kNoTrunk = "   ";

const Branches& branchesOf(const TextStyle& style) { return style.utf8 ? kBoxes : kAscii; }

std::string padded(std::string text, std::size_t width) {
  const std::size_t columns = columnsOf(text);
  if (columns < width) text.append(width - columns, ' ');
  return text;
}

// What stands before a text in its first line and in the others. Nothing else that is written to a
// line is as wide as this, and nobody but the tool writes it.
struct Margin {
  std::string first;
  std::string others;
};

std::string block(const Margin& margin, const std::string& text, Tree::Paint paint,
                  const TextStyle& style) {
  const std::size_t margins = columnsOf(margin.first);
  const std::size_t width = std::max(kLeastWidth, style.width - std::min(style.width, margins));
  std::string out;
  for (const std::string& line :
       wrapped(printable(text), width, kMostLines, branchesOf(style).ellipsis)) {
    out += (out.empty() ? margin.first : margin.others) + painted(line, paint, style) + '\n';
  }
  return out;
}

std::string rowsText(const std::vector<Tree::Row>& rows, const std::string& indent,
                     const TextStyle& style) {
  std::size_t column = 0;
  for (const Tree::Row& row : rows) column = std::max(column, columnsOf(row.label));
  std::string out;
  for (const Tree::Row& row : rows) {
    const std::size_t gap = column == 0 ? 0 : column + 2;
    out += block({indent + padded(row.label, gap), indent + std::string(gap, ' ')}, row.value,
                 row.paint, style);
  }
  return out;
}

// NOLINTNEXTLINE(misc-no-recursion): as deep as verifications are nested
std::string branchesText(const std::vector<Tree>& trees, const std::string& indent,
                         const TextStyle& style) {
  const Branches& branches = branchesOf(style);
  std::size_t column = 0;
  for (const Tree& tree : trees) column = std::max(column, columnsOf(tree.lead));
  const std::size_t gap = column == 0 ? 0 : column + 2;
  std::string out;
  for (const Tree& tree : trees) {
    const bool last = &tree == &trees.back();
    const std::string inner = indent + std::string(last ? kNoTrunk : branches.trunk);
    const std::string below =
        inner + std::string(tree.below.empty() ? std::string_view() : branches.trunk);
    const std::string hanging(gap, ' ');
    out +=
        block({indent + std::string(last ? branches.last : branches.fork) + padded(tree.lead, gap),
               below + hanging},
              tree.title, tree.paint, style);
    out += rowsText(tree.rows, below + hanging, style);
    out += branchesText(tree.below, inner, style);
  }
  return out;
}

}  // namespace

std::string painted(const std::string& text, Tree::Paint paint, const TextStyle& style) {
  if (!style.colour) return text;
  switch (paint) {
    case Tree::Paint::kGood:
      return "\x1b[32m" + text + "\x1b[0m";
    case Tree::Paint::kBad:
      return "\x1b[31m" + text + "\x1b[0m";
    case Tree::Paint::kUncertain:
      return "\x1b[33m" + text + "\x1b[0m";
    case Tree::Paint::kStrong:
      return "\x1b[1m" + text + "\x1b[0m";
    case Tree::Paint::kNone:
      break;
  }
  return text;
}

std::string treeText(const std::vector<Tree>& trees, const TextStyle& style) {
  return branchesText(trees, "  ", style);
}

std::string paragraph(const std::string& text, const TextStyle& style, Tree::Paint paint,
                      std::size_t most) {
  const std::size_t width =
      std::max(kLeastWidth, style.width - std::min<std::size_t>(style.width, 4));
  std::string out;
  for (const std::string& line :
       wrapped(printable(text), width, most, branchesOf(style).ellipsis)) {
    out += (out.empty() ? "  " : "    ") + painted(line, paint, style) + '\n';
  }
  return out;
}

}  // namespace Velantrix::Tool
