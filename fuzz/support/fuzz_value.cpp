#include "fuzz/support/fuzz_value.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <vector>

#include "host/json.h"

namespace appex::fuzz {
namespace {

constexpr int kMaxDepth = 24;
constexpr std::size_t kMaxNodes = 512;

AnyValue decodeNode(FuzzedDataProvider& in, int depth, std::size_t& budget) {
  if (in.remaining_bytes() == 0 || budget == 0) return nullptr;
  --budget;
  // Containers only while the depth allows them.
  switch (in.ConsumeIntegralInRange<int>(0, depth >= kMaxDepth ? 5 : 7)) {
    case 0:
      return nullptr;
    case 1:
      return in.ConsumeBool();
    case 2:
      return in.ConsumeIntegral<std::int64_t>();
    case 3:
      return in.ConsumeIntegral<std::uint64_t>();
    case 4:
      switch (in.ConsumeIntegralInRange<int>(0, 4)) {
        case 0: return std::numeric_limits<double>::quiet_NaN();
        case 1: return std::numeric_limits<double>::infinity();
        case 2: return -std::numeric_limits<double>::infinity();
        case 3: return -0.0;
        default: return std::bit_cast<double>(in.ConsumeIntegral<std::uint64_t>());
      }
    case 5:
      return boost::json::string(in.ConsumeRandomLengthString(256));
    case 6: {
      List list;
      const int n = in.ConsumeIntegralInRange<int>(0, 6);
      for (int i = 0; i < n && budget > 0; ++i) list.push_back(decodeNode(in, depth + 1, budget));
      return list;
    }
    default: {
      Dictionary d;
      const int n = in.ConsumeIntegralInRange<int>(0, 6);
      for (int i = 0; i < n && budget > 0; ++i) {
        std::string key = in.ConsumeRandomLengthString(32);
        d.insert_or_assign(key, decodeNode(in, depth + 1, budget));
      }
      return d;
    }
  }
}

std::optional<long double> numberOf(const AnyValue& v) {
  if (const auto* i = v.if_int64()) return static_cast<long double>(*i);
  if (const auto* u = v.if_uint64()) return static_cast<long double>(*u);
  if (const auto* d = v.if_double()) return static_cast<long double>(*d);
  return std::nullopt;
}

bool sameNumber(const AnyValue& a, const AnyValue& b) {
  if (a.is_double() || b.is_double()) {
    const long double x = *numberOf(a), y = *numberOf(b);
    if (x == y) return true;
    // The parser is not correctly rounded: a relative error near the last
    // digit, and more among subnormals, where few digits are significant.
    const long double scale = std::max(std::fabs(x), std::fabs(y));
    return std::fabs(x - y) <= std::max(scale * 1e-15L, 1e-300L);
  }
  // Integers: exact, across int64 and uint64.
  if (a.is_int64() && b.is_int64()) return a.get_int64() == b.get_int64();
  if (a.is_uint64() && b.is_uint64()) return a.get_uint64() == b.get_uint64();
  const AnyValue& s = a.is_int64() ? a : b;
  const AnyValue& u = a.is_int64() ? b : a;
  return s.get_int64() >= 0 && static_cast<std::uint64_t>(s.get_int64()) == u.get_uint64();
}

}  // namespace

AnyValue decodeBinary(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  std::size_t budget = kMaxNodes;
  return decodeNode(in, 0, budget);
}

AnyValue decodeInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto parsed = JSON::parse(text, /*allowFragments=*/true)) return std::move(*parsed);
  return decodeBinary(data, size);
}

bool isWellFormedUtf8(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size()) {
    const auto c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    std::size_t extra;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      extra = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      extra = 2;
      if (c == 0xE0) lo = 0xA0;
      if (c == 0xED) hi = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      extra = 3;
      if (c == 0xF0) lo = 0x90;
      if (c == 0xF4) hi = 0x8F;
    } else {
      return false;
    }
    if (i + extra >= s.size()) return false;  // truncated
    for (std::size_t k = 1; k <= extra; ++k) {
      const auto b = static_cast<unsigned char>(s[i + k]);
      if (b < (k == 1 ? lo : 0x80) || b > (k == 1 ? hi : 0xBF)) return false;
    }
    i += extra + 1;
  }
  return true;
}

bool hasNonFiniteNumber(const AnyValue& root) {
  std::vector<const AnyValue*> stack{&root};
  while (!stack.empty()) {
    const AnyValue* v = stack.back();
    stack.pop_back();
    if (const auto* d = v->if_double()) {
      if (!std::isfinite(*d)) return true;
    } else if (const auto* a = v->if_array()) {
      for (const auto& e : *a) stack.push_back(&e);
    } else if (const auto* o = v->if_object()) {
      for (const auto& kv : *o) stack.push_back(&kv.value());
    }
  }
  return false;
}

bool isJsonExpressible(const AnyValue& root) {
  std::vector<const AnyValue*> stack{&root};
  while (!stack.empty()) {
    const AnyValue* v = stack.back();
    stack.pop_back();
    if (const auto* d = v->if_double()) {
      if (!std::isfinite(*d)) return false;
    } else if (const auto* s = v->if_string()) {
      if (!isWellFormedUtf8(std::string_view(s->data(), s->size()))) return false;
    } else if (const auto* a = v->if_array()) {
      for (const auto& e : *a) stack.push_back(&e);
    } else if (const auto* o = v->if_object()) {
      for (const auto& kv : *o) {
        if (!isWellFormedUtf8(std::string_view(kv.key().data(), kv.key().size()))) return false;
        stack.push_back(&kv.value());
      }
    }
  }
  return true;
}

bool sameJsonValue(const AnyValue& a, const AnyValue& b) {
  if (numberOf(a) && numberOf(b)) return sameNumber(a, b);
  if (a.kind() != b.kind()) return false;
  if (const auto* x = a.if_array()) {
    const auto& y = b.get_array();
    if (x->size() != y.size()) return false;
    for (std::size_t i = 0; i < x->size(); ++i) {
      if (!sameJsonValue((*x)[i], y[i])) return false;
    }
    return true;
  }
  if (const auto* x = a.if_object()) {
    const auto& y = b.get_object();
    if (x->size() != y.size()) return false;
    auto i = x->begin();
    auto j = y.begin();
    for (; i != x->end(); ++i, ++j) {
      if (i->key() != j->key() || !sameJsonValue(i->value(), j->value())) return false;
    }
    return true;
  }
  return a == b;
}

bool identical(const AnyValue& a, const AnyValue& b) {
  if (a.kind() != b.kind()) return false;
  if (const auto* x = a.if_double()) {
    return std::bit_cast<std::uint64_t>(*x) == std::bit_cast<std::uint64_t>(b.get_double()) ||
           (std::isnan(*x) && std::isnan(b.get_double()));
  }
  if (const auto* x = a.if_array()) {
    const auto& y = b.get_array();
    if (x->size() != y.size()) return false;
    for (std::size_t i = 0; i < x->size(); ++i) {
      if (!identical((*x)[i], y[i])) return false;
    }
    return true;
  }
  if (const auto* x = a.if_object()) {
    const auto& y = b.get_object();
    if (x->size() != y.size()) return false;
    for (auto i = x->begin(), j = y.begin(); i != x->end(); ++i, ++j) {
      if (i->key() != j->key() || !identical(i->value(), j->value())) return false;
    }
    return true;
  }
  return a == b;
}

void substituteStrings(AnyValue& v,
                       const std::function<std::optional<std::string>(std::string_view)>& lookup) {
  std::vector<AnyValue*> stack{&v};
  while (!stack.empty()) {
    AnyValue* node = stack.back();
    stack.pop_back();
    if (auto* s = node->if_string()) {
      if (auto replacement = lookup(std::string_view(s->data(), s->size()))) *s = *replacement;
    } else if (auto* a = node->if_array()) {
      for (auto& e : *a) stack.push_back(&e);
    } else if (auto* o = node->if_object()) {
      for (auto& kv : *o) stack.push_back(&kv.value());
    }
  }
}

std::optional<Message> readSentMessage(const AnyValue& v) {
  if (auto m = Message::parse(v)) return m;
  const Dictionary* d = v.if_object();
  if (!d || asString(*d, "type") != "ANSWER" || d->contains("err") || d->contains("data")) return std::nullopt;
  auto uid = asString(*d, "uid");
  if (!uid) return std::nullopt;
  Message m;
  m.type = MessageType::answer;
  m.uid = std::move(*uid);
  if (const auto* frame = d->if_contains("frameId")) m.frameId = asInt64(*frame);
  return m;
}

const AnyValue* member(const AnyValue& v, std::string_view key) {
  const auto* o = v.if_object();
  return o ? o->if_contains(key) : nullptr;
}

void fail(std::string_view what, std::string_view detail, std::string_view data) {
  std::fprintf(stderr, "\n==== appex fuzz property violated: %.*s\n", static_cast<int>(what.size()),
               what.data());
  for (std::string_view more : {detail, data}) {
    if (!more.empty()) std::fprintf(stderr, "     %.*s\n", static_cast<int>(more.size()), more.data());
  }
  std::fflush(stderr);
  std::abort();
}

}  // namespace appex::fuzz
