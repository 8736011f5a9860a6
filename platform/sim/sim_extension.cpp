#include "platform/sim/sim_extension.h"

namespace appex::sim {

SimExtension::SimExtension(std::shared_ptr<SimCore> core) : core_(std::move(core)) {}

void SimExtension::getBaseURI(BaseURICompletion completion) {
  std::optional<std::string> uri;
  {
    std::lock_guard lock(core_->mutex);
    uri = baseURI_;
  }
  core_->deliver([completion = std::move(completion), uri = std::move(uri)]() mutable {
    completion(std::move(uri));
  });
}

void SimExtension::setBaseURI(std::optional<std::string> uri) {
  std::lock_guard lock(core_->mutex);
  baseURI_ = std::move(uri);
}

}  // namespace appex::sim
