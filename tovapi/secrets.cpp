// The process-wide list of values that diagnostics must blank.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "internal_secrets.h"

namespace tov1 {
namespace secrets {

const char* const kRedacted = "<redacted>";

namespace {

// Set once the first value is remembered; constant-initialised, so lines
// shown during static initialisation read it safely.
std::atomic<bool> anyRemembered{false};

struct Registry {
  std::mutex lock;
  std::deque<std::string> values;  // oldest first
};

// Never destroyed: objects' destructors may still show lines at exit.
Registry& registry() {
  static auto* r = new Registry;
  return *r;
}

}  // namespace

void remember(const std::string& value) {
  if (value.size() < kMinLength) return;
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  auto known = std::find(r.values.begin(), r.values.end(), value);
  if (known != r.values.end()) r.values.erase(known);
  r.values.push_back(value);
  if (r.values.size() > kCapacity) r.values.pop_front();
  anyRemembered.store(true, std::memory_order_release);
}

bool any() { return anyRemembered.load(std::memory_order_acquire); }

bool redact(std::string& text) {
  if (!any()) return false;
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  // Longest first: a value that contains another is blanked as a whole.
  std::vector<const std::string*> order;
  order.reserve(r.values.size());
  for (const std::string& v : r.values) order.push_back(&v);
  std::stable_sort(order.begin(), order.end(),
                   [](const std::string* a, const std::string* b) {
                     return a->size() > b->size();
                   });
  const std::size_t replacementLength = std::strlen(kRedacted);
  bool replaced = false;
  for (const std::string* value : order) {
    for (std::string::size_type at = text.find(*value); at != std::string::npos;
         at = text.find(*value, at)) {
      text.replace(at, value->size(), kRedacted);
      at += replacementLength;
      replaced = true;
    }
  }
  return replaced;
}

bool shown() {
  const char* opt = std::getenv("TOVAPI_SHOW_SECRETS");
  return opt != nullptr && std::strcmp(opt, "1") == 0;
}

void forgetAll() {
  Registry& r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  r.values.clear();
  anyRemembered.store(false, std::memory_order_release);
}

}  // namespace secrets
}  // namespace tov1
