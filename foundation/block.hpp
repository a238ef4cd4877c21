// Block<Signature>: a callable that can be copied, may be null and has an identity. Two copies of one block
// are the same block; two equal lambdas are not. Used for completions, callbacks and queued work.
#pragma once

#include <concepts>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace qm {

template <class Signature>
class Block;

template <class Result, class... Arguments>
class Block<Result(Arguments...)> {
 public:
  Block() = default;
  Block(std::nullptr_t) {}

  // Takes any callable, also one that can only be moved.
  template <class Callable>
  requires(!std::same_as<std::remove_cvref_t<Callable>, Block> &&
           std::is_invocable_r_v<Result, std::remove_cvref_t<Callable>&, Arguments...>)
      Block(Callable&& callable)
      : body_(std::make_shared<Holder<std::remove_cvref_t<Callable>>>(std::forward<Callable>(callable))) {}

  explicit operator bool() const { return body_ != nullptr; }

  // The block must not be null. May be called from several threads at once if the callable allows it.
  Result operator()(Arguments... arguments) const {
    return body_->call(std::forward<Arguments>(arguments)...);
  }

  // Distinguishes blocks as long as both live; null for a null block.
  const void* identity() const { return body_.get(); }

  std::string description() const {
    char text[64];
    std::snprintf(text, sizeof text, "<block: %p>", identity());
    return text;
  }

  friend bool operator==(const Block& a, const Block& b) { return a.body_ == b.body_; }
  friend bool operator==(const Block& a, std::nullptr_t) { return a.body_ == nullptr; }

 private:
  struct Body {
    virtual ~Body() = default;
    virtual Result call(Arguments... arguments) = 0;
  };
  template <class Callable>
  struct Holder final : Body {
    template <class Source>
    explicit Holder(Source&& source) : callable(std::forward<Source>(source)) {}
    Result call(Arguments... arguments) override {
      return static_cast<Result>(callable(std::forward<Arguments>(arguments)...));
    }
    Callable callable;
  };

  std::shared_ptr<Body> body_;
};

}  // namespace qm

template <class Signature>
struct std::hash<qm::Block<Signature>> {
  std::size_t operator()(const qm::Block<Signature>& block) const noexcept {
    return std::hash<const void*>()(block.identity());
  }
};
