#pragma once

// What a verb found: labelled values in order, nested in sections, with
// warnings and at most one failure, rendered either as aligned text or as
// one JSON object. The failure's kind is stable for scripts:
// {"error": {"kind": ..., "message": ...}}.

#include <json/json.h>

#include <memory>
#include <string>
#include <vector>

namespace rpktool {

// In the order of KindName's names.
enum class FailureKind {
  kUsage,         // the command line is wrong
  kInput,         // an input cannot be read or used
  kConfig,        // config.txt has errors
  kOutput,        // the output is refused or cannot be written
  kFilesystem,    // the ext4 filesystem cannot be made
  kVerification,  // the package fails verification
};
const char* KindName(FailureKind kind);

struct Failure {
  FailureKind kind;
  std::string message;
};

// Length of the UTF-8 sequence at `text[at]`, or 0 when none starts there.
size_t Utf8Length(const std::string& text, size_t at);

// `bytes` safe to show on a terminal and in JSON: control characters (but
// line feeds when kept), backslashes and bytes that are not UTF-8 become
// \xNN escapes.
std::string Printable(const std::string& bytes, bool keep_line_feeds = false);

class Report {
 public:
  // A value: a JSON member `key`, shown in text as "label: value" (or as
  // "label: text" when `text` is given). Strings are made Printable; null
  // values are left out; arrays give one line per element.
  Report& Add(const std::string& key, const std::string& label, const Json::Value& value,
              const std::string& text = "");
  // A nested report: a JSON object `key`, shown in text under "label:".
  Report& Section(const std::string& key, const std::string& label);
  // A nested report appended to the JSON array `key`, shown in text under
  // "label:" like a section.
  Report& Item(const std::string& key, const std::string& label);
  void Warn(const std::string& message) { warnings_.push_back(message); }
  void Fail(FailureKind kind, const std::string& message);

  const std::vector<std::string>& warnings() const { return warnings_; }
  const Failure* failure() const { return failure_.get(); }
  Json::Value ToJson() const;
  std::string ToText() const;

 private:
  struct Entry {
    std::string key;
    std::string label;
    Json::Value value;
    std::string text;
    std::unique_ptr<Report> section;
    bool is_item = false;
  };
  void RenderText(const std::string& indent, std::string* out) const;

  std::vector<Entry> entries_;
  std::vector<std::string> warnings_;
  std::unique_ptr<Failure> failure_;
};

}  // namespace rpktool
