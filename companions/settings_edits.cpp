#include "companions/settings_edits.hpp"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "companions/toml_text.hpp"

namespace qm {

namespace {

constexpr std::string_view kBlanks = " \t\r";

bool isBlank(std::string_view text) {
  return text.find_first_not_of(kBlanks) == std::string_view::npos;
}

// Collects replacements of parts of a text that do not overlap, and makes them.
class Editor {
 public:
  explicit Editor(const std::string& text) : text_(text), places_(text) {}

  std::size_t begin(const toml::source_region& region) const { return places_.offset(region.begin); }
  std::size_t end(const toml::source_region& region) const { return places_.offset(region.end); }
  std::size_t lineStart(std::size_t offset) const { return places_.lineStart(offset); }
  std::size_t lineEnd(std::size_t offset) const { return places_.lineEnd(offset); }
  std::string_view part(std::size_t begin, std::size_t end) const {
    return std::string_view(text_).substr(begin, end - begin);
  }
  // As the file ends its lines.
  std::string newline() const { return text_.find("\r\n") == std::string::npos ? "\n" : "\r\n"; }

  void replace(std::size_t begin, std::size_t end, std::string with) {
    edits_[{begin, end}] += std::move(with);
  }
  void insert(std::size_t offset, std::string text) { replace(offset, offset, std::move(text)); }
  // A line of its own behind the one with the offset, also where that is the last one and has no end.
  void insertLineAfter(std::size_t offset, const std::string& line) {
    const std::size_t lineEnd = places_.lineEnd(offset);
    if (lineEnd == text_.size())
      insert(lineEnd, newline() + line + newline());
    else
      insert(lineEnd + 1, line + newline());
  }
  // With the line when nothing else is on it; a comment on the line stays.
  void remove(std::size_t begin, std::size_t end) {
    const std::size_t lineStart = places_.lineStart(begin);
    const std::size_t lineEnd = places_.lineEnd(end);
    const std::string_view rest = part(end, lineEnd);
    if (!isBlank(part(lineStart, begin))) return replace(begin, end, "");
    if (isBlank(rest)) return replace(lineStart, std::min(lineEnd + 1, text_.size()), "");
    replace(begin, end + std::min(rest.find_first_not_of(kBlanks), rest.size()), "");
  }

  std::string result() const {
    std::string result;
    std::size_t position = 0;
    for (const auto& [range, text] : edits_) {
      const auto& [begin, end] = range;
      if (begin < position) return text_;  // they overlap: no edit at all
      result.append(text_, position, begin - position).append(text);
      position = end;
    }
    return result.append(text_, position);
  }

 private:
  const std::string& text_;
  const TomlPlaces places_;
  std::map<std::pair<std::size_t, std::size_t>, std::string> edits_;
};

// A table with a header, or one made by a dotted key: not a value behind "=".
bool hasOwnLines(const toml::node& node) {
  const toml::table* table = node.as_table();
  return table != nullptr && !table->is_inline();
}

std::string literal(const Value& value) {
  return tomlLiteral(value).value_or("");
}

// The inline table anew: there are no comments in one.
std::string changedInlineTable(const toml::table& table, const std::string& key, const Value& value) {
  std::optional<Value> content = valueFromToml(table, nullptr);
  Dictionary entries = content ? *content->as<Dictionary>() : Dictionary();
  if (value.isNull())
    entries.erase(key);
  else
    entries[key] = value;
  return literal(entries);
}

// Behind the table's last setting, indented like it, or behind its header.
std::string withLine(const std::string& text, const toml::table& table, const std::string& line) {
  Editor editor(text);
  std::size_t place = editor.begin(table.source());
  std::size_t first = place;
  for (const auto& [key, node] : table) {
    const std::size_t end = editor.end(node.source());
    if (hasOwnLines(node) || node.is_array_of_tables() || end < place) continue;
    place = end;
    first = editor.begin(key.source());
  }
  const std::string_view indentation = editor.part(editor.lineStart(first), first);
  editor.insertLineAfter(place, (isBlank(indentation) ? std::string(indentation) : std::string()) + line);
  return editor.result();
}

std::string withTable(const std::string& text, std::string_view table, const std::string& line) {
  const std::string newline = Editor(text).newline();
  std::string result = text;
  if (!result.empty() && !result.ends_with('\n')) result += newline;
  if (!result.empty()) result += newline;
  return result + "[" + std::string(table) + "]" + newline + line + newline;
}

std::string withReplacedValue(const std::string& text, const toml::key& key, const toml::node& node,
                              const Value& value) {
  Editor editor(text);
  if (value.isNull())
    editor.remove(editor.begin(key.source()), editor.end(node.source()));
  else
    editor.replace(editor.begin(node.source()), editor.end(node.source()), literal(value));
  return editor.result();
}

// The text between an array's entries: where its comma is, if it has one.
std::optional<std::size_t> commaIn(std::string_view gap) {
  for (std::size_t i = 0; i < gap.size(); ++i) {
    if (gap[i] == ',') return i;
    if (gap[i] == '#') i = std::min(gap.find('\n', i), gap.size());
  }
  return std::nullopt;
}

class ArrayEdit {
 public:
  ArrayEdit(const std::string& text, const toml::array& array)
      : editor_(text), array_(array), end_(editor_.end(array.source()) - 1) {}

  std::string result(const Array& wanted) {
    std::size_t taken = 0;
    for (std::size_t i = 0; i < array_.size(); ++i) {
      const std::optional<Value> entry = valueFromToml(array_[i], nullptr);
      if (entry && taken < wanted.size() && *entry == wanted[taken]) {
        ++taken;
        last_ = i;
      } else {
        removeEntry(i);
      }
    }
    append(Array(wanted.begin() + static_cast<std::ptrdiff_t>(taken), wanted.end()));
    return editor_.result();
  }

 private:
  std::size_t endOf(std::size_t i) const { return editor_.end(array_[i].source()); }
  std::size_t nextAfter(std::size_t i) const {
    return i + 1 < array_.size() ? editor_.begin(array_[i + 1].source()) : end_;
  }

  // With its comma, where that stands right behind it.
  void removeEntry(std::size_t i) {
    const std::size_t begin = editor_.begin(array_[i].source());
    const std::optional<std::size_t> comma = commaIn(editor_.part(endOf(i), nextAfter(i)));
    std::size_t end = endOf(i) + (comma ? *comma + 1 : 0);
    const std::string_view gap = editor_.part(end, nextAfter(i));
    if (gap.find('\n') == std::string_view::npos && isBlank(gap) && i + 1 < array_.size()) end += gap.size();
    editor_.remove(begin, end);
  }

  void append(const Array& entries) {
    if (entries.empty()) return;
    const std::size_t tail = last_ ? endOf(*last_) : editor_.begin(array_.source()) + 1;
    const bool hasComma = last_ && commaIn(editor_.part(tail, nextAfter(*last_)));
    const std::size_t lineStart = editor_.lineStart(end_);
    std::string text;
    if (lineStart > tail && isBlank(editor_.part(lineStart, end_))) {
      if (last_ && !hasComma) editor_.insert(tail, ",");
      for (const Value& entry : entries) text += "  " + literal(entry) + "," + editor_.newline();
      return editor_.insert(lineStart, text);
    }
    for (const Value& entry : entries) text += (last_ || !text.empty() ? ", " : "") + literal(entry);
    editor_.insert(tail, text);
  }

  Editor editor_;
  const toml::array& array_;
  const std::size_t end_;            // of the closing bracket
  std::optional<std::size_t> last_;  // entry that stays
};

}  // namespace

std::vector<std::string> editsOfSetting(const std::string& text, std::string_view tableName,
                                        const std::string& key, const Value& value) {
  const std::optional<toml::table> root = parseToml(text, nullptr);
  if (!root) return {};
  const std::string line = tomlKey(key) + " = " + literal(value);
  const toml::table* table = (*root)[tableName].as_table();
  if (table == nullptr) return {withTable(text, tableName, line)};
  if (table->is_inline()) {
    Editor editor(text);
    editor.replace(editor.begin(table->source()), editor.end(table->source()),
                   changedInlineTable(*table, key, value));
    return {editor.result()};
  }
  if (const auto found = table->find(key); found != table->end())
    return {withReplacedValue(text, found->first, found->second, value)};
  return {withLine(text, *table, line), withTable(text, tableName, line)};
}

std::vector<std::string> editsOfAllowList(const std::string& text, const Array& allowList) {
  const std::optional<toml::table> root = parseToml(text, nullptr);
  if (!root) return {};
  const toml::array* array = (*root)[kAllowListKey].as_array();
  if (array != nullptr) return {ArrayEdit(text, *array).result(allowList)};
  Editor editor(text);
  editor.insert(editor.lineStart(0), std::string(kAllowListKey) + " = " + literal(allowList) +
                                         editor.newline() + editor.newline());
  return {editor.result()};
}

}  // namespace qm
