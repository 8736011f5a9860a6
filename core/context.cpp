#include "core/context.h"

#include <atomic>

namespace appex {
namespace {
std::atomic<Context*> overrideContext{nullptr};
}  // namespace

Context& Context::current() {
  if (Context* c = overrideContext.load(std::memory_order_acquire)) return *c;
  static Context* defaultContext = new Context();  // lives for the process
  return *defaultContext;
}

ScopedContext::ScopedContext(Context& context)
    : previous_(overrideContext.exchange(&context, std::memory_order_acq_rel)) {}

ScopedContext::~ScopedContext() { overrideContext.store(previous_, std::memory_order_release); }

}  // namespace appex
