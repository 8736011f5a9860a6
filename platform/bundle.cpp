#include "platform/bundle.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <plist/plist.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <system_error>

#include "core/context.h"

namespace appex {
namespace {

// Larger Info.plist files are not metadata; refusing them bounds memory.
constexpr std::uintmax_t kMaxInfoSize = 16 * 1024 * 1024;
// Deeper nesting is cut (the value becomes null) so hostile input cannot
// exhaust the stack.
constexpr int kMaxDepth = 64;
// Seconds between the Unix epoch and the plist epoch (2001-01-01 UTC).
constexpr std::int64_t kPlistEpoch = 978307200;

struct PlistFree {
  void operator()(plist_t p) const { plist_free(p); }
};
using PlistHandle = std::unique_ptr<void, PlistFree>;

// Strings that libplist allocates.
struct MallocFree {
  void operator()(char* p) const { std::free(p); }
};
using CString = std::unique_ptr<char, MallocFree>;

std::string base64(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const std::uint32_t n = (std::uint8_t(bytes[i]) << 16) | (std::uint8_t(bytes[i + 1]) << 8) |
                            std::uint8_t(bytes[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (const std::size_t rest = bytes.size() - i; rest > 0) {
    std::uint32_t n = std::uint8_t(bytes[i]) << 16;
    if (rest == 2) n |= std::uint8_t(bytes[i + 1]) << 8;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string isoDate(std::int32_t seconds) {
  const std::time_t t = static_cast<std::time_t>(kPlistEpoch + seconds);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// libplist reads keys and strings as C strings and fails an assertion,
// stopping the process, on one holding a NUL character (a binary file, or
// a raw byte in an XML file, can carry one). Such a file is refused, and
// these tell it apart before anything is read: a string by its pointer and
// length, a key (which has no such accessor) through the XML writer, which
// copies it by length.
bool stringHoldsNul(plist_t node) {
  std::uint64_t length = 0;
  const char* s = plist_get_string_ptr(node, &length);
  return s && std::memchr(s, 0, length) != nullptr;
}

bool keyHoldsNul(plist_t key) {
  char* xml = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(key, &xml, &length);
  CString owned(xml);
  return xml && std::strlen(xml) != length;
}

// Sets `holdsNul` (and stops reading) on a key or string with a NUL.
AnyValue toValue(plist_t node, int depth, bool& holdsNul) {
  if (!node || depth > kMaxDepth || holdsNul) return nullptr;
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return b != 0;
    }
    case PLIST_UINT: {
      // Plist integers are signed 64-bit; this libplist hands them over as
      // their unsigned bit pattern.
      std::uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return static_cast<std::int64_t>(u);
    }
    case PLIST_UID: {
      std::uint64_t u = 0;
      plist_get_uid_val(node, &u);
      return u;
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return d;
    }
    case PLIST_STRING:
    case PLIST_KEY: {
      char* s = nullptr;
      if (plist_get_node_type(node) == PLIST_STRING) {
        if ((holdsNul = stringHoldsNul(node))) return nullptr;
        plist_get_string_val(node, &s);
      } else {
        if ((holdsNul = keyHoldsNul(node))) return nullptr;
        plist_get_key_val(node, &s);
      }
      CString owned(s);
      return boost::json::string(s ? s : "");
    }
    case PLIST_DATE: {
      std::int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      return boost::json::string(isoDate(sec));
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      std::uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      CString owned(bytes);
      return boost::json::string(base64(std::string_view(bytes ? bytes : "", bytes ? length : 0)));
    }
    case PLIST_ARRAY: {
      List list;
      const std::uint32_t n = plist_array_get_size(node);
      list.reserve(n);
      for (std::uint32_t i = 0; i < n; ++i) {
        list.push_back(toValue(plist_array_get_item(node, i), depth + 1, holdsNul));
      }
      return list;
    }
    case PLIST_DICT: {
      Dictionary dict;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      if (!it) return dict;
      for (;;) {
        // The key is read only once it is known to be safe to read.
        plist_t value = nullptr;
        plist_dict_next_item(node, it, nullptr, &value);
        if (!value) break;
        plist_t keyNode = plist_dict_item_get_key(value);
        if (keyNode && (holdsNul = keyHoldsNul(keyNode))) break;
        char* key = nullptr;
        if (keyNode) plist_get_key_val(keyNode, &key);
        CString owned(key);
        dict.insert_or_assign(key ? key : "", toValue(value, depth + 1, holdsNul));
      }
      std::free(it);
      return dict;
    }
    default:
      return nullptr;
  }
}

// libplist says only that a file is no property list. For XML text this
// finds where, as ": line N: what": the first point where it stops being
// well-formed XML (libxml2), else the first element out of place in a
// property list. Empty when it cannot tell (binary data, or an error
// libplist sees in well-formed XML of the right shape, such as a bad date).
std::string whereXMLFails(const std::string& bytes) {
  const auto first = bytes.find_first_not_of(" \t\r\n");
  if (first == std::string::npos || bytes[first] != '<') return "";
  xmlParserCtxtPtr parser = xmlNewParserCtxt();
  if (!parser) return "";
  // The first error is the one to show (the parser goes on after it, and
  // what follows is often a consequence). It reaches the structured error
  // handler with the parser as its data.
  std::string where;
  parser->_private = &where;
  parser->sax->serror = [](void* data, xmlErrorPtr e) {
    auto& first = *static_cast<std::string*>(static_cast<xmlParserCtxtPtr>(data)->_private);
    if (!first.empty() || !e || !e->message) return;
    std::string message = e->message;
    while (!message.empty() && (message.back() == '\n' || message.back() == ' ')) message.pop_back();
    first = ": line " + std::to_string(e->line) + ": " + message;
  };
  // No network, no external entities, no output of its own.
  xmlDocPtr doc = xmlCtxtReadMemory(parser, bytes.data(), static_cast<int>(bytes.size()), "Info.plist", nullptr,
                                    XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (!parser->wellFormed || !doc) {
    // `where` holds the first error, if the parser reported one.
  } else {
    // Property list shape: <plist> holds one value; a <dict> alternates
    // <key> and a value; values are the plist elements.
    static constexpr std::string_view kValues[] = {"dict", "array", "string", "integer", "real",
                                                   "true", "false", "date",  "data"};
    auto isValue = [](const xmlNode* n) {
      const std::string_view name = reinterpret_cast<const char*>(n->name);
      return std::find(std::begin(kValues), std::end(kValues), name) != std::end(kValues);
    };
    auto misplaced = [](const xmlNode* n, const std::string& what) {
      return ": line " + std::to_string(xmlGetLineNo(n)) + ": <" + reinterpret_cast<const char*>(n->name) + "> " +
             what;
    };
    auto keyWithoutValue = [](const xmlNode* key) {
      xmlChar* text = xmlNodeGetContent(key);
      std::string out = ": line " + std::to_string(xmlGetLineNo(key)) + ": <key>" +
                        (text ? reinterpret_cast<const char*>(text) : "") + "</key> has no value";
      xmlFree(text);
      return out;
    };
    std::function<std::string(const xmlNode*, int)> walk = [&](const xmlNode* parent, int depth) -> std::string {
      if (depth > kMaxDepth) return "";
      const bool inDict = std::string_view(reinterpret_cast<const char*>(parent->name)) == "dict";
      const xmlNode* key = nullptr;  // in a dict: the key waiting for its value
      for (const xmlNode* n = parent->children; n; n = n->next) {
        if (n->type != XML_ELEMENT_NODE) continue;
        const std::string_view name = reinterpret_cast<const char*>(n->name);
        if (inDict && name == "key") {
          if (key) return keyWithoutValue(key);
          key = n;
          continue;
        }
        if (inDict && !key) return misplaced(n, "stands where a <key> belongs");
        key = nullptr;
        if (!isValue(n)) return misplaced(n, "is not a property list element");
        if (name == "dict" || name == "array") {
          if (auto inner = walk(n, depth + 1); !inner.empty()) return inner;
        }
      }
      return key ? keyWithoutValue(key) : "";
    };
    const xmlNode* root = xmlDocGetRootElement(doc);
    if (root && std::string_view(reinterpret_cast<const char*>(root->name)) == "plist") where = walk(root, 0);
  }
  xmlFreeDoc(doc);
  xmlFreeParserCtxt(parser);
  return where;
}

}  // namespace

Bundle::Bundle(std::string path, std::string identifier, Dictionary info)
    : path_(std::move(path)), identifier_(std::move(identifier)), info_(std::move(info)) {}

std::expected<std::shared_ptr<Bundle>, std::string> Bundle::fromInfo(
    const std::filesystem::path& path, Dictionary info) {
  auto identifier = asString(info, "CFBundleIdentifier");
  if (!identifier || identifier->empty()) {
    return std::unexpected("bundle " + path.string() + ": Info.plist has no CFBundleIdentifier string");
  }
  std::error_code ec;
  std::filesystem::path full = std::filesystem::absolute(path, ec);
  if (ec) return std::unexpected("bundle " + path.string() + ": cannot resolve the path: " + ec.message());
  std::string absolute = full.lexically_normal().string();
  while (absolute.size() > 1 && absolute.back() == '/') absolute.pop_back();
  return std::shared_ptr<Bundle>(new Bundle(std::move(absolute), std::move(*identifier), std::move(info)));
}

std::expected<std::shared_ptr<Bundle>, std::string> Bundle::load(const std::filesystem::path& path) {
  std::error_code ec;
  if (!std::filesystem::is_directory(path, ec)) {
    return std::unexpected("bundle folder " + path.string() +
                           (std::filesystem::exists(path, ec) ? " is not a folder" : " does not exist"));
  }
  const std::filesystem::path infoFile = path / "Contents" / "Info.plist";
  if (!std::filesystem::is_regular_file(infoFile, ec)) {
    return std::unexpected("bundle " + path.string() + ": missing " + infoFile.string());
  }
  const std::uintmax_t size = std::filesystem::file_size(infoFile, ec);
  if (ec) return std::unexpected("bundle: cannot read " + infoFile.string() + ": " + ec.message());
  if (size > kMaxInfoSize) {
    return std::unexpected("bundle: " + infoFile.string() + " is too large to be an Info.plist");
  }
  std::ifstream in(infoFile, std::ios::binary);
  if (!in) {
    return std::unexpected("bundle: cannot read " + infoFile.string() + ": " + std::strerror(errno));
  }
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::unexpected("bundle: cannot read " + infoFile.string());

  plist_t root = nullptr;
  if (!bytes.empty()) {
    plist_from_memory(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
  }
  PlistHandle owned(root);
  if (!root) {
    return std::unexpected("bundle: " + infoFile.string() + " is not a property list (XML or binary)" +
                           whereXMLFails(bytes));
  }
  if (plist_get_node_type(root) != PLIST_DICT) {
    return std::unexpected("bundle: " + infoFile.string() + " does not hold a dictionary");
  }
  bool holdsNul = false;
  AnyValue info = toValue(root, 0, holdsNul);
  if (holdsNul) {
    return std::unexpected("bundle: " + infoFile.string() + " holds a NUL character in a key or string");
  }
  return fromInfo(path, std::move(info.as_object()));
}

std::shared_ptr<Bundle> Bundle::create(Context&) {
  std::fprintf(stderr, "Context: no Bundle installed (the host loads it with Bundle::load)\n");
  std::abort();
}

std::shared_ptr<Bundle> Bundle::shared() { return Context::current().get<Bundle>(); }

std::optional<std::string> Bundle::resourcePath(std::string_view name) const {
  std::string file = path_ + "/Contents/Resources/" + std::string(name);
  std::error_code ec;
  if (name.empty() || !std::filesystem::is_regular_file(file, ec)) return std::nullopt;
  return file;
}

std::string Bundle::webAssetsPath() const { return path_ + "/Contents/Resources/Assets/extension"; }

}  // namespace appex
