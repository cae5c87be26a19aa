// JSON as lines, one object each: for streams of records.
//
// A stream may be as large as a trace, so what a record costs counts: names and values are stored into the text with
// its own formatters, nothing is allocated per record, and members that many records share are written once and copied
// from then on (fragment()).
#pragma once

#include <cstdint>
#include <string_view>
#include <type_traits>

#include "text.h"

namespace veksys {

// Writes one object after the other. Names of members are plain text (no quote, backslash or control character); values
// are escaped. The caller closes what it opens.
class JsonLine {
 public:
  // Begins an object of its own in `text`, which must live until the object is closed.
  void begin(Text& text) {
    text_ = &text;
    separate_ = false;
    open('{');
  }
  // Begins members without an object around them, to be copied into others by fragment().
  void beginFragment(Text& text) {
    text_ = &text;
    separate_ = false;
  }

  void StartObject() { open('{'); }
  void EndObject() { close('}'); }
  void EndArray() { close(']'); }
  void array(std::string_view name) {
    key(name);
    open('[');
  }
  void object(std::string_view name) {
    key(name);
    open('{');
  }

  void key(std::string_view name) {
    char* at = text_->room(name.size() + 4);
    char* const begin = at;
    if (separate_) *at++ = ',';
    *at++ = '"';
    std::memcpy(at, name.data(), name.size());
    at += name.size();
    *at++ = '"';
    *at++ = ':';
    text_->commit(static_cast<std::size_t>(at - begin));
    separate_ = false;
  }
  template <class T>
  void member(std::string_view name, const T& content) {
    key(name);
    value(content);
  }
  // A member whose value is text that needs no escape, put by `fill`.
  template <class Fill>
  void plainMember(std::string_view name, Fill fill) {
    key(name);
    plain(fill);
  }
  // Members made by beginFragment(), or written down: `"a":1,"b":2`. They are not empty.
  void fragment(std::string_view members) { raw(members); }

  void value(std::string_view text) {
    element();
    string(text);
  }
  void value(const char* text) { text == nullptr ? raw("null") : value(std::string_view(text)); }
  void value(bool truth) { raw(truth ? "true" : "false"); }
  template <class T>
  requires std::is_integral_v<T>
  void value(T number) {
    element();
    if constexpr (std::is_signed_v<T>)
      text_->signedDecimal(number);
    else
      text_->decimal(number);
  }
  // A value that is JSON already.
  void raw(std::string_view json) {
    element();
    text_->put(json);
  }
  // A number that `fill` puts, such as one with a point.
  template <class Fill>
  void number(Fill fill) {
    element();
    fill(*text_);
  }
  // Text that needs no escape, put by `fill`.
  template <class Fill>
  void plain(Fill fill) {
    element();
    text_->put('"');
    fill(*text_);
    text_->put('"');
  }
  // Foreign text in the form of putSafe().
  void safe(std::string_view foreign) {
    scratch_.clear();
    putSafe(scratch_, foreign);
    value(scratch_.view());
  }

 private:
  void element() {
    if (separate_) text_->put(',');
    separate_ = true;
  }
  void open(char bracket) {
    element();
    text_->put(bracket);
    separate_ = false;
  }
  void close(char bracket) {
    text_->put(bracket);
    separate_ = true;
  }
  void string(std::string_view text);

  Text* text_ = nullptr;
  bool separate_ = false;  // what comes next is not the first of its object or array
  Text scratch_;
};

}  // namespace veksys
