// CachingImageLoader: an ImageLoader that decodes each icon file once.
//
// The toolbar loads its icon on every update (every tab event of the
// active tab); decoding a PNG or a PDF each time costs far more than the
// update itself. This loader keeps, per path, what the wrapped decoder
// answered (an image or none) together with the file's size and
// modification time, and answers from memory while both are unchanged. A
// file that changed is decoded again; a path that is no regular file is
// never remembered (the decoder answers that at once). At most `capacity`
// paths are kept: when full, the remembered answers are all dropped.
//
// Thread-safe; the decoder is called without the lock held.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/image_loader.h"

namespace appex {

class CachingImageLoader final : public ImageLoader {
 public:
  explicit CachingImageLoader(std::shared_ptr<ImageLoader> decoder, std::size_t capacity = 64);

  std::optional<ToolbarImage> load(const std::string& path) override;

 private:
  struct Stamp {
    std::uintmax_t size;
    std::filesystem::file_time_type modified;
    bool operator==(const Stamp&) const = default;
  };
  struct Entry {
    Stamp stamp;
    std::optional<ToolbarImage> image;
  };

  const std::shared_ptr<ImageLoader> decoder_;
  const std::size_t capacity_;
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;  // guarded by mutex_
};

}  // namespace appex
