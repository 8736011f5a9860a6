#include "platform/cached_image_loader.h"

#include <system_error>

namespace appex {

CachingImageLoader::CachingImageLoader(std::shared_ptr<ImageLoader> decoder, std::size_t capacity)
    : decoder_(std::move(decoder)), capacity_(capacity) {}

std::optional<ToolbarImage> CachingImageLoader::load(const std::string& path) {
  std::error_code ec;
  const auto status = std::filesystem::status(path, ec);
  if (ec || !std::filesystem::is_regular_file(status)) return decoder_->load(path);
  const Stamp stamp{std::filesystem::file_size(path, ec), std::filesystem::last_write_time(path, ec)};
  if (ec) return decoder_->load(path);
  {
    std::lock_guard lock(mutex_);
    if (auto found = entries_.find(path); found != entries_.end() && found->second.stamp == stamp) {
      return found->second.image;
    }
  }
  auto image = decoder_->load(path);
  std::lock_guard lock(mutex_);
  if (entries_.size() >= capacity_ && !entries_.contains(path)) entries_.clear();
  entries_.insert_or_assign(path, Entry{stamp, image});
  return image;
}

}  // namespace appex
