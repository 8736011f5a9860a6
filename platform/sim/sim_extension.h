// SimExtension: the simulated browser's facts about the extension (its base
// URI), settable by tests.
//
// Owned by its SimBrowser (and by the Context it is installed in).
// Thread-safe; completions follow the browser's delivery setting.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/safari_extension.h"
#include "platform/sim/sim_core.h"

namespace appex::sim {

class SimExtension final : public SFSafariExtension {
 public:
  explicit SimExtension(std::shared_ptr<SimCore> core);

  void getBaseURI(BaseURICompletion completion) override;

  void setBaseURI(std::optional<std::string> uri);

 private:
  const std::shared_ptr<SimCore> core_;
  std::optional<std::string> baseURI_;  // guarded by core_->mutex
};

}  // namespace appex::sim
