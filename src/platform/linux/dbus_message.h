// Messages of the D-Bus protocol: writing method calls and reading what comes back.
//
// The wire format of https://dbus.freedesktop.org/doc/dbus-specification.html, in this machine's
// byte order: every peer lives on this machine. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vesko {

/// Arguments of a call, in order, with the signature that they make.
class DBusArguments {
 public:
  DBusArguments& add(std::string_view text);
  DBusArguments& add(std::int32_t number);
  DBusArguments& add(std::uint32_t number);
  DBusArguments& addVariant(double number);
  DBusArguments& addVariant(bool flag);
  DBusArguments& addEmptyTexts();  ///< an empty array of texts

  const std::string& signature() const { return signature_; }
  const std::string& bytes() const { return bytes_; }

 private:
  std::string signature_;
  std::string bytes_;
};

struct DBusCall {
  std::string_view destination;
  std::string_view path;
  std::string_view interface;
  std::string_view member;
};

/// Appends the whole message to `out`.
void appendDBusCall(std::string& out, const DBusCall& call, const DBusArguments& arguments,
                    std::uint32_t serial);

/// Reads values one after the other. Beyond the end, and of malformed values, everything is zero
/// or empty and ok() is false from then on. Texts are views into the message. What a value is, the
/// message's signature has told.
class DBusReader {
 public:
  DBusReader() = default;
  /// `body` begins at a multiple of eight bytes of its message, as bodies do.
  explicit DBusReader(std::string_view body) : bytes_(body), end_(body.size()) {}

  bool ok() const { return ok_; }
  bool more() const { return ok_ && at_ < end_; }

  std::uint8_t byte();
  std::uint32_t uint32();
  std::int32_t int32() { return static_cast<std::int32_t>(uint32()); }
  double float64();
  bool boolean() { return uint32() != 0; }
  std::string_view text();       ///< also of an object path
  std::string_view signature();  ///< also that of a variant, which comes before its value
  void structure() { align(8); }
  /// The elements of an array, to be read to their end with more(). This reader goes on behind it.
  DBusReader array(std::size_t elementAlignment);

 private:
  std::string_view take(std::size_t size);
  void align(std::size_t to);

  std::string_view bytes_;
  std::size_t at_ = 0;
  std::size_t end_ = 0;
  bool ok_ = true;
};

/// A message as it came; views into the bytes it was read from.
struct DBusMessage {
  enum class Type : std::uint8_t { call = 1, reply = 2, error = 3, signal = 4 };
  Type type = Type::call;
  std::uint32_t serial = 0;
  std::uint32_t replySerial = 0;
  std::string_view sender;
  std::string_view errorName;
  std::string_view signature;
  std::string_view body;
};

inline constexpr std::size_t dbusFixedHeaderBytes = 16;
/// The largest that the protocol allows.
inline constexpr std::size_t maxDBusMessageBytes = 128 << 20;

/// The length of the message that begins so; nothing when none can. At least
/// dbusFixedHeaderBytes are given.
std::optional<std::size_t> dbusMessageSize(std::string_view begin);

/// How much of it comes before the body; dbusMessageSize() has accepted it.
std::size_t dbusMessageHeadSize(std::string_view begin);

/// Nothing when the message is malformed. `bytes` is the whole message, as long as
/// dbusMessageSize() says, or its head alone, and the body empty then.
std::optional<DBusMessage> parseDBusMessage(std::string_view bytes);

}  // namespace vesko
