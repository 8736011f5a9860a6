// SimPage: one page of a simulated tab. Tests set its URL and title, play
// its content script (sendMessageToExtension), and read every message the
// extension dispatched into it.
//
// Owned by its SimTab while open; holds its tab weakly. Closing the tab
// closes the page: it then answers nullptr / nothing to queries and ignores
// dispatched messages. Thread-safe; completions follow the browser's
// delivery setting.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/any_value.h"
#include "platform/safari_page.h"
#include "platform/sim/sim_core.h"

namespace appex::sim {

class SimTab;

// One message the extension dispatched into a page.
struct DispatchedMessage {
  std::string name;
  Dictionary userInfo;
};

class SimPage final : public SFSafariPage, public std::enable_shared_from_this<SimPage> {
 public:
  // Runs for each message dispatched into the page, after it is recorded,
  // on the dispatching thread: a test's stand-in for the page's script.
  using ContentScript = std::function<void(const std::shared_ptr<SimPage>& page,
                                           const DispatchedMessage& message)>;

  // Made by SimTab.
  SimPage(std::shared_ptr<SimCore> core, std::optional<std::string> url,
          std::optional<std::string> title);

  // SFSafariPage.
  void getContainingTab(TabCompletion completion) override;
  void getPageProperties(PropertiesCompletion completion) override;
  void dispatchMessageToScript(const std::string& name, const Dictionary& userInfo) override;
  bool isEqual(const SFSafariPage& other) const override;
  std::string description() const override;

  // Test controls.
  void setURL(std::optional<std::string> url);
  void setTitle(std::optional<std::string> title);
  std::optional<std::string> url() const;
  std::optional<std::string> title() const;
  std::shared_ptr<SimTab> tab() const;
  bool isClosed() const;

  // Plays the page's content script posting a message to the extension:
  // calls the browser's intake on the calling thread. Does nothing when no
  // intake is set or the page is closed.
  void sendMessageToExtension(const std::string& name, std::optional<Dictionary> userInfo);

  // Every message dispatched into the page so far, oldest first.
  std::vector<DispatchedMessage> receivedMessages() const;
  // Waits until at least `count` messages have arrived.
  bool waitForMessages(std::size_t count,
                       std::chrono::steady_clock::duration timeout = std::chrono::seconds(10));
  void setContentScript(ContentScript script);

 private:
  friend class SimTab;
  friend class SimWindow;

  const std::shared_ptr<SimCore> core_;
  const std::uint64_t serial_;
  // Guarded by core_->mutex.
  std::weak_ptr<SimTab> tab_;
  std::optional<std::string> url_;
  std::optional<std::string> title_;
  bool closed_ = false;
  std::vector<DispatchedMessage> received_;
  ContentScript script_;
};

}  // namespace appex::sim
