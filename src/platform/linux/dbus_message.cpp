#include "platform/linux/dbus_message.h"

#include <bit>
#include <cstring>

namespace vesko {
namespace {

constexpr char byteOrder = std::endian::native == std::endian::little ? 'l' : 'B';
constexpr std::uint8_t protocolVersion = 1;
constexpr std::size_t maxArrayBytes = 64 << 20;

enum HeaderField : std::uint8_t {
  pathField = 1,
  interfaceField = 2,
  memberField = 3,
  errorNameField = 4,
  replySerialField = 5,
  destinationField = 6,
  senderField = 7,
  signatureField = 8,
};

constexpr std::size_t aligned(std::size_t size, std::size_t to) {
  return (size + to - 1) / to * to;
}

void pad(std::string& out, std::size_t from, std::size_t to) {
  out.resize(from + aligned(out.size() - from, to), '\0');
}

template <class T>
void appendRaw(std::string& out, T value) {
  char raw[sizeof value];
  std::memcpy(raw, &value, sizeof value);
  out.append(raw, sizeof value);
}

template <class T>
T rawAt(std::string_view bytes) {
  T value{};
  std::memcpy(&value, bytes.data(), sizeof value);
  return value;
}

void appendText(std::string& out, std::string_view text) {
  appendRaw(out, static_cast<std::uint32_t>(text.size()));
  out.append(text);
  out += '\0';
}

void appendSignature(std::string& out, std::string_view signature) {
  out += static_cast<char>(signature.size());
  out.append(signature);
  out += '\0';
}

void appendHeaderText(std::string& out, std::size_t begin, HeaderField field, char type,
                      std::string_view text) {
  pad(out, begin, 8);
  out += static_cast<char>(field);
  appendSignature(out, {&type, 1});
  if (type == 'g') {
    appendSignature(out, text);
  } else {
    pad(out, begin, 4);
    appendText(out, text);
  }
}

}  // namespace

DBusArguments& DBusArguments::add(std::string_view text) {
  signature_ += 's';
  pad(bytes_, 0, 4);
  appendText(bytes_, text);
  return *this;
}

DBusArguments& DBusArguments::add(std::int32_t number) {
  signature_ += 'i';
  pad(bytes_, 0, 4);
  appendRaw(bytes_, number);
  return *this;
}

DBusArguments& DBusArguments::add(std::uint32_t number) {
  signature_ += 'u';
  pad(bytes_, 0, 4);
  appendRaw(bytes_, number);
  return *this;
}

DBusArguments& DBusArguments::addVariant(double number) {
  signature_ += 'v';
  appendSignature(bytes_, "d");
  pad(bytes_, 0, 8);
  appendRaw(bytes_, number);
  return *this;
}

DBusArguments& DBusArguments::addVariant(bool flag) {
  signature_ += 'v';
  appendSignature(bytes_, "b");
  pad(bytes_, 0, 4);
  appendRaw(bytes_, std::uint32_t{flag});
  return *this;
}

DBusArguments& DBusArguments::addEmptyTexts() {
  signature_ += "as";
  pad(bytes_, 0, 4);
  appendRaw(bytes_, std::uint32_t{0});
  return *this;
}

void appendDBusCall(std::string& out, const DBusCall& call, const DBusArguments& arguments,
                    std::uint32_t serial) {
  const std::size_t begin = out.size();
  out += byteOrder;
  out += static_cast<char>(DBusMessage::Type::call);
  out += '\0';  // no flags
  out += static_cast<char>(protocolVersion);
  appendRaw(out, static_cast<std::uint32_t>(arguments.bytes().size()));
  appendRaw(out, serial);
  appendRaw(out, std::uint32_t{0});  // the length of the fields, known at their end
  appendHeaderText(out, begin, pathField, 'o', call.path);
  appendHeaderText(out, begin, interfaceField, 's', call.interface);
  appendHeaderText(out, begin, memberField, 's', call.member);
  appendHeaderText(out, begin, destinationField, 's', call.destination);
  if (!arguments.signature().empty())
    appendHeaderText(out, begin, signatureField, 'g', arguments.signature());
  const auto fields = static_cast<std::uint32_t>(out.size() - begin - dbusFixedHeaderBytes);
  std::memcpy(out.data() + begin + 12, &fields, sizeof fields);
  pad(out, begin, 8);
  out.append(arguments.bytes());
}

std::string_view DBusReader::take(std::size_t size) {
  if (!ok_ || size > end_ - at_) {
    ok_ = false;
    return {};
  }
  at_ += size;
  return bytes_.substr(at_ - size, size);
}

void DBusReader::align(std::size_t to) {
  take(aligned(at_, to) - at_);
}

std::uint8_t DBusReader::byte() {
  const auto raw = take(1);
  return ok_ ? static_cast<std::uint8_t>(raw[0]) : std::uint8_t{0};
}

std::uint32_t DBusReader::uint32() {
  align(4);
  const auto raw = take(4);
  return ok_ ? rawAt<std::uint32_t>(raw) : 0;
}

double DBusReader::float64() {
  align(8);
  const auto raw = take(8);
  return ok_ ? rawAt<double>(raw) : 0;
}

std::string_view DBusReader::text() {
  const std::uint32_t size = uint32();
  const auto text = take(size);
  if (byte() != 0) ok_ = false;
  return ok_ ? text : std::string_view();
}

std::string_view DBusReader::signature() {
  const std::uint8_t size = byte();
  const auto text = take(size);
  if (byte() != 0) ok_ = false;
  return ok_ ? text : std::string_view();
}

DBusReader DBusReader::array(std::size_t elementAlignment) {
  const std::uint32_t size = uint32();
  align(elementAlignment);
  if (size > maxArrayBytes) ok_ = false;
  DBusReader elements = *this;
  take(size);
  elements.ok_ = ok_;
  elements.end_ = at_;
  return elements;
}

std::optional<std::size_t> dbusMessageSize(std::string_view begin) {
  if (begin[0] != byteOrder || begin[3] != static_cast<char>(protocolVersion)) return std::nullopt;
  const std::size_t body = rawAt<std::uint32_t>(begin.substr(4));
  const std::size_t fields = rawAt<std::uint32_t>(begin.substr(12));
  if (fields > maxArrayBytes || body > maxDBusMessageBytes) return std::nullopt;
  const std::size_t size = dbusMessageHeadSize(begin) + body;
  if (size > maxDBusMessageBytes) return std::nullopt;
  return size;
}

std::size_t dbusMessageHeadSize(std::string_view begin) {
  return aligned(dbusFixedHeaderBytes + rawAt<std::uint32_t>(begin.substr(12)), 8);
}

std::optional<DBusMessage> parseDBusMessage(std::string_view bytes) {
  const auto type = static_cast<std::uint8_t>(bytes[1]);
  if (type < 1 || type > 4) return std::nullopt;
  const std::size_t head = dbusMessageHeadSize(bytes);
  DBusMessage message;
  message.type = static_cast<DBusMessage::Type>(type);
  message.serial = rawAt<std::uint32_t>(bytes.substr(8));
  message.body = bytes.substr(head);
  DBusReader header(bytes.substr(0, head));
  for (int skipped = 0; skipped < 3; ++skipped) header.uint32();
  DBusReader fields = header.array(8);
  while (fields.more()) {
    fields.structure();
    const std::uint8_t field = fields.byte();
    const std::string_view kind = fields.signature();
    if (kind == "u") {
      const std::uint32_t number = fields.uint32();
      if (field == replySerialField) message.replySerial = number;
    } else if (kind == "s" || kind == "o") {
      const std::string_view text = fields.text();
      if (field == senderField) message.sender = text;
      if (field == errorNameField) message.errorName = text;
    } else if (kind == "g") {
      const std::string_view signature = fields.signature();
      if (field == signatureField) message.signature = signature;
    } else {
      return std::nullopt;  // the protocol knows no field of another kind
    }
  }
  if (!fields.ok()) return std::nullopt;
  return message;
}

}  // namespace vesko
