// std::expected for the fuzz build only (force-included with -include).
//
// The fuzz build uses clang 14 with the system's libstdc++ 12. That
// library's <expected> is compiled only when the compiler reports C++20
// concepts at level 202002L, which clang 14 does not: its expected relies on
// destructors constrained by requires-clauses (conditionally trivial
// special members), which clang 14 cannot compile. The rest of the code
// base needs nothing else clang 14 lacks, so this header supplies the
// subset of std::expected / std::unexpected the code base uses, with the
// standard's semantics, and only when the library did not provide one. The
// g++ builds (debug, release, asan, tsan) never see it.
//
// Differences from the standard type that cannot matter here: the special
// members are never trivial and nothing is constexpr beyond what the
// language gives for free.
#pragma once

#if defined(__cplusplus) && __cplusplus > 202002L
#include <version>
#if !defined(__cpp_lib_expected)

#include <exception>
#include <initializer_list>
#include <memory>
#include <type_traits>
#include <utility>

namespace std {

template <class E>
class unexpected {
 public:
  unexpected(const unexpected&) = default;
  unexpected(unexpected&&) = default;
  template <class Err = E>
    requires(!is_same_v<remove_cvref_t<Err>, unexpected> &&
             !is_same_v<remove_cvref_t<Err>, in_place_t> && is_constructible_v<E, Err>)
  constexpr explicit unexpected(Err&& e) : error_(std::forward<Err>(e)) {}
  template <class... Args>
  constexpr explicit unexpected(in_place_t, Args&&... args) : error_(std::forward<Args>(args)...) {}

  unexpected& operator=(const unexpected&) = default;
  unexpected& operator=(unexpected&&) = default;

  constexpr const E& error() const& noexcept { return error_; }
  constexpr E& error() & noexcept { return error_; }
  constexpr const E&& error() const&& noexcept { return std::move(error_); }
  constexpr E&& error() && noexcept { return std::move(error_); }

  template <class E2>
  friend constexpr bool operator==(const unexpected& x, const unexpected<E2>& y) {
    return x.error() == y.error();
  }

 private:
  E error_;
};

template <class E>
unexpected(E) -> unexpected<E>;

struct unexpect_t {
  explicit unexpect_t() = default;
};
inline constexpr unexpect_t unexpect{};

template <class E>
class bad_expected_access;

template <>
class bad_expected_access<void> : public exception {
 public:
  const char* what() const noexcept override { return "bad access to std::expected without expected value"; }
};

template <class E>
class bad_expected_access : public bad_expected_access<void> {
 public:
  explicit bad_expected_access(E e) : error_(std::move(e)) {}
  const E& error() const& noexcept { return error_; }
  E& error() & noexcept { return error_; }
  E&& error() && noexcept { return std::move(error_); }

 private:
  E error_;
};

namespace appex_compat {
template <class T>
struct is_unexpected : false_type {};
template <class E>
struct is_unexpected<unexpected<E>> : true_type {};
template <class T>
struct is_expected : false_type {};
}  // namespace appex_compat

template <class T, class E>
class expected;

namespace appex_compat {
template <class T, class E>
struct is_expected<expected<T, E>> : true_type {};
}  // namespace appex_compat

template <class T, class E>
class expected {
 public:
  using value_type = T;
  using error_type = E;
  using unexpected_type = unexpected<E>;

  expected()
    requires is_default_constructible_v<T>
      : has_(true) {
    ::new (addressof(value_)) T();
  }
  expected(const expected& other) : has_(other.has_) {
    if (has_) ::new (addressof(value_)) T(other.value_);
    else ::new (addressof(error_)) E(other.error_);
  }
  expected(expected&& other) noexcept(is_nothrow_move_constructible_v<T> &&
                                      is_nothrow_move_constructible_v<E>)
      : has_(other.has_) {
    if (has_) ::new (addressof(value_)) T(std::move(other.value_));
    else ::new (addressof(error_)) E(std::move(other.error_));
  }
  template <class U = T>
    requires(!is_same_v<remove_cvref_t<U>, in_place_t> && !is_same_v<remove_cvref_t<U>, expected> &&
             !appex_compat::is_unexpected<remove_cvref_t<U>>::value &&
             !is_same_v<remove_cvref_t<U>, unexpect_t> && is_constructible_v<T, U>)
  explicit(!is_convertible_v<U, T>) expected(U&& v) : has_(true) {
    ::new (addressof(value_)) T(std::forward<U>(v));
  }
  template <class G>
    requires is_constructible_v<E, const G&>
  explicit(!is_convertible_v<const G&, E>) expected(const unexpected<G>& e) : has_(false) {
    ::new (addressof(error_)) E(e.error());
  }
  template <class G>
    requires is_constructible_v<E, G>
  explicit(!is_convertible_v<G, E>) expected(unexpected<G>&& e) : has_(false) {
    ::new (addressof(error_)) E(std::move(e).error());
  }
  template <class... Args>
  explicit expected(in_place_t, Args&&... args) : has_(true) {
    ::new (addressof(value_)) T(std::forward<Args>(args)...);
  }
  template <class... Args>
  explicit expected(unexpect_t, Args&&... args) : has_(false) {
    ::new (addressof(error_)) E(std::forward<Args>(args)...);
  }

  ~expected() { destroy(); }

  expected& operator=(const expected& other) {
    if (this != &other) assignFrom(other);
    return *this;
  }
  expected& operator=(expected&& other) noexcept(is_nothrow_move_constructible_v<T> &&
                                                 is_nothrow_move_constructible_v<E>) {
    if (this != &other) assignFrom(std::move(other));
    return *this;
  }
  template <class U = T>
    requires(!is_same_v<remove_cvref_t<U>, expected> &&
             !appex_compat::is_unexpected<remove_cvref_t<U>>::value && is_constructible_v<T, U> &&
             is_assignable_v<T&, U>)
  expected& operator=(U&& v) {
    if (has_) {
      value_ = std::forward<U>(v);
    } else {
      T tmp(std::forward<U>(v));
      error_.~E();
      ::new (addressof(value_)) T(std::move(tmp));
      has_ = true;
    }
    return *this;
  }
  template <class G>
  expected& operator=(const unexpected<G>& e) {
    setError(e.error());
    return *this;
  }
  template <class G>
  expected& operator=(unexpected<G>&& e) {
    setError(std::move(e).error());
    return *this;
  }

  template <class... Args>
  T& emplace(Args&&... args) {
    destroy();
    ::new (addressof(value_)) T(std::forward<Args>(args)...);
    has_ = true;
    return value_;
  }

  const T* operator->() const noexcept { return addressof(value_); }
  T* operator->() noexcept { return addressof(value_); }
  const T& operator*() const& noexcept { return value_; }
  T& operator*() & noexcept { return value_; }
  const T&& operator*() const&& noexcept { return std::move(value_); }
  T&& operator*() && noexcept { return std::move(value_); }

  explicit operator bool() const noexcept { return has_; }
  bool has_value() const noexcept { return has_; }

  const T& value() const& {
    if (!has_) throw bad_expected_access<E>(error_);
    return value_;
  }
  T& value() & {
    if (!has_) throw bad_expected_access<E>(error_);
    return value_;
  }
  T&& value() && {
    if (!has_) throw bad_expected_access<E>(std::move(error_));
    return std::move(value_);
  }
  const E& error() const& noexcept { return error_; }
  E& error() & noexcept { return error_; }
  E&& error() && noexcept { return std::move(error_); }

  template <class U>
  T value_or(U&& fallback) const& {
    return has_ ? value_ : static_cast<T>(std::forward<U>(fallback));
  }
  template <class U>
  T value_or(U&& fallback) && {
    return has_ ? std::move(value_) : static_cast<T>(std::forward<U>(fallback));
  }

  template <class T2, class E2>
    requires(!is_void_v<T2>)
  friend bool operator==(const expected& x, const expected<T2, E2>& y) {
    if (x.has_value() != y.has_value()) return false;
    return x.has_value() ? *x == *y : x.error() == y.error();
  }
  template <class T2>
    requires(!appex_compat::is_expected<T2>::value)
  friend bool operator==(const expected& x, const T2& v) {
    return x.has_value() && *x == v;
  }
  template <class E2>
  friend bool operator==(const expected& x, const unexpected<E2>& e) {
    return !x.has_value() && x.error() == e.error();
  }

 private:
  void destroy() {
    if (has_) value_.~T();
    else error_.~E();
  }
  template <class Other>
  void assignFrom(Other&& other) {
    if (other.has_) {
      if (has_) {
        value_ = std::forward<Other>(other).value_;
      } else {
        T tmp(std::forward<Other>(other).value_);
        error_.~E();
        ::new (addressof(value_)) T(std::move(tmp));
        has_ = true;
      }
    } else {
      setError(std::forward<Other>(other).error_);
    }
  }
  template <class G>
  void setError(G&& g) {
    if (!has_) {
      error_ = std::forward<G>(g);
    } else {
      E tmp(std::forward<G>(g));
      value_.~T();
      ::new (addressof(error_)) E(std::move(tmp));
      has_ = false;
    }
  }

  template <class, class>
  friend class expected;

  union {
    T value_;
    E error_;
  };
  bool has_;
};

template <class E>
class expected<void, E> {
 public:
  using value_type = void;
  using error_type = E;
  using unexpected_type = unexpected<E>;

  expected() noexcept : has_(true) {}
  expected(const expected& other) : has_(other.has_) {
    if (!has_) ::new (addressof(error_)) E(other.error_);
  }
  expected(expected&& other) noexcept(is_nothrow_move_constructible_v<E>) : has_(other.has_) {
    if (!has_) ::new (addressof(error_)) E(std::move(other.error_));
  }
  template <class G>
    requires is_constructible_v<E, const G&>
  explicit(!is_convertible_v<const G&, E>) expected(const unexpected<G>& e) : has_(false) {
    ::new (addressof(error_)) E(e.error());
  }
  template <class G>
    requires is_constructible_v<E, G>
  explicit(!is_convertible_v<G, E>) expected(unexpected<G>&& e) : has_(false) {
    ::new (addressof(error_)) E(std::move(e).error());
  }
  explicit expected(in_place_t) noexcept : has_(true) {}
  template <class... Args>
  explicit expected(unexpect_t, Args&&... args) : has_(false) {
    ::new (addressof(error_)) E(std::forward<Args>(args)...);
  }

  ~expected() {
    if (!has_) error_.~E();
  }

  expected& operator=(const expected& other) {
    if (this == &other) return *this;
    if (other.has_) emplace();
    else setError(other.error_);
    return *this;
  }
  expected& operator=(expected&& other) noexcept(is_nothrow_move_constructible_v<E>) {
    if (this == &other) return *this;
    if (other.has_) emplace();
    else setError(std::move(other.error_));
    return *this;
  }
  template <class G>
  expected& operator=(const unexpected<G>& e) {
    setError(e.error());
    return *this;
  }
  template <class G>
  expected& operator=(unexpected<G>&& e) {
    setError(std::move(e).error());
    return *this;
  }

  void emplace() noexcept {
    if (!has_) {
      error_.~E();
      has_ = true;
    }
  }

  explicit operator bool() const noexcept { return has_; }
  bool has_value() const noexcept { return has_; }
  void operator*() const noexcept {}
  void value() const& {
    if (!has_) throw bad_expected_access<E>(error_);
  }
  void value() && {
    if (!has_) throw bad_expected_access<E>(std::move(error_));
  }
  const E& error() const& noexcept { return error_; }
  E& error() & noexcept { return error_; }
  E&& error() && noexcept { return std::move(error_); }

  template <class E2>
  friend bool operator==(const expected& x, const expected<void, E2>& y) {
    if (x.has_value() != y.has_value()) return false;
    return x.has_value() || x.error() == y.error();
  }
  template <class E2>
  friend bool operator==(const expected& x, const unexpected<E2>& e) {
    return !x.has_value() && x.error() == e.error();
  }

 private:
  template <class G>
  void setError(G&& g) {
    if (!has_) {
      error_ = std::forward<G>(g);
    } else {
      ::new (addressof(error_)) E(std::forward<G>(g));
      has_ = false;
    }
  }

  union {
    E error_;
  };
  bool has_;
};

}  // namespace std

#endif  // !__cpp_lib_expected
#endif  // C++23
