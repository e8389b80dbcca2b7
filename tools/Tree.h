// A tree of texts as people read it: branches, labels in a column, values broken under their column.
#pragma once

#include "Terminal.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Velantrix::Tool {

/// Texts are as strangers wrote them; they are escaped when they are written.
struct Tree {
  enum class Paint { kNone, kGood, kBad, kUncertain, kStrong };

  /// A value below the title.
  struct Row {
    std::string label;
    std::string value;
    Paint paint = Paint::kNone;
  };

  std::string lead = {};  ///< stands in a column before the title
  std::string title;
  Paint paint = Paint::kNone;
  std::vector<Row> rows = {};
  std::vector<Tree> below = {};
};

/// The trees as branches of one trunk, each line indented by two blanks.
std::string treeText(const std::vector<Tree>& trees, const TextStyle& style);

/// @p text in lines of @p style's width, the first indented by two blanks and others by four; at most
/// @p most of them.
std::string paragraph(const std::string& text, const TextStyle& style,
                      Tree::Paint paint = Tree::Paint::kNone, std::size_t most = std::string::npos);

/// @p text in the colour of @p paint, where there are colours.
std::string painted(const std::string& text, Tree::Paint paint, const TextStyle& style);

}  // namespace Velantrix::Tool
