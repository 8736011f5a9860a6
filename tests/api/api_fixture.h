// Shared setup for the command-table and toolbar tests: the tab fixture's
// fresh Context and simulated browser, plus a bundle in a temporary folder,
// a user-defaults store there, and an image loader that accepts any file
// that exists (so tests control which icons "load" by creating files).
#pragma once

#include <filesystem>
#include <fstream>

#include "api/safari_api_invoker.h"
#include "platform/bundle.h"
#include "platform/image_loader.h"
#include "platform/popup_controller.h"
#include "platform/sqlite_user_defaults.h"
#include "tabs/identifiers.h"

#include <unistd.h>
#include "tests/tabs/tabs_fixture.h"

namespace appex::testing {

class ExistingFileImageLoader final : public ImageLoader {
 public:
  std::optional<ToolbarImage> load(const std::string& path) override {
    if (!std::filesystem::is_regular_file(path)) return std::nullopt;
    return ToolbarImage{path};
  }
};

class FakePopup final : public PopupController {
 public:
  Size preferredContentSize() const override {
    std::lock_guard lock(mutex_);
    return size_;
  }
  void setPreferredContentSize(Size size) override {
    std::lock_guard lock(mutex_);
    size_ = size;
  }
  void dismissPopover() override {
    std::lock_guard lock(mutex_);
    ++dismissals_;
  }
  int dismissals() const {
    std::lock_guard lock(mutex_);
    return dismissals_;
  }

 private:
  mutable std::mutex mutex_;
  Size size_{430, 566};
  int dismissals_ = 0;
};

class ApiFixture : public TabsFixture {
 protected:
  ApiFixture() {
    root_ = std::filesystem::temp_directory_path() /
            ("appex-api-" + std::to_string(::getpid()) + "-" + newUUIDString());
    std::filesystem::create_directories(root_ / "Example.appex/Contents/Resources/Assets/extension");
    bundlePath_ = root_ / "Example.appex";
    Dictionary info{{"CFBundleIdentifier", "com.example.ext"},
                    {"CFBundleShortVersionString", "2.1.0"},
                    {"CFBundleVersion", "57"}};
    context_.set<Bundle>(Bundle::fromInfo(bundlePath_, info).value());
    context_.set<UserDefaults>(SqliteUserDefaults::open(root_ / "data", "com.example.ext").value());
    context_.set<ImageLoader>(std::make_shared<ExistingFileImageLoader>());
    context_.set<PopupController>(popup);
  }
  ~ApiFixture() override {
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }

  // Invokes a command and waits for its one result.
  Result invoke(const std::string& cmd, std::optional<AnyValue> args = std::nullopt) {
    SafariApiInvoker invoker(context_);
    return call([&](ResultCallback done) { invoker.invokeAPI(cmd, args, std::move(done)); });
  }

  void writeAsset(const std::string& relative) {
    auto path = bundlePath_ / "Contents/Resources/Assets/extension" / relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << "image";
  }

  std::shared_ptr<FakePopup> popup = std::make_shared<FakePopup>();
  std::filesystem::path root_;
  std::filesystem::path bundlePath_;
};

}  // namespace appex::testing
