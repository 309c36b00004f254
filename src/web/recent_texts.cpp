#include "web/recent_texts.hpp"

std::string RecentTexts::get(const std::string& key, const std::function<std::string()>& make) {
  auto now = Clock::now();
  {
    std::lock_guard lock(mutex_);
    if (auto found = entries_.find(key); found != entries_.end() && now - found->second.made < max_age_)
      return found->second.text;
  }
  std::string text = make();
  std::lock_guard lock(mutex_);
  if (entries_.size() >= capacity_) {
    std::erase_if(entries_, [&](const auto& entry) { return now - entry.second.made >= max_age_; });
    if (entries_.size() >= capacity_) entries_.clear();
  }
  entries_.insert_or_assign(key, Entry{now, text});
  return text;
}
