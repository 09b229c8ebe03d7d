#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <string_view>

// A shared reference to an immutable narrow text: the reference count, the length and the
// characters in one allocation, held through one pointer. A node's hash text is one of these:
// a SHA-256 text costs 8 bytes in the node and 80 in its allocation, where a shared std::string
// costs 16 in the node and 144 in two allocations; nodes with equal hash text share one.
//
// Reads like a shared pointer to a string: null or not, compared by identity, "*ref" is the text
// (convertible to std::string and std::string_view, comparable with texts), "ref->size()".
class CSharedText {
 public:
  // The text behind a reference, as a view that converts and compares like a string.
  class CView {
   public:
    explicit CView(std::string_view text) : text_(text) {}
    operator std::string_view() const { return text_; }
    operator std::string() const { return std::string(text_); }
    std::string_view view() const { return text_; }
    bool empty() const { return text_.empty(); }
    size_t size() const { return text_.size(); }
    const char* data() const { return text_.data(); }
    friend bool operator==(const CView& a, std::string_view b) { return a.text_ == b; }
    friend bool operator==(const CView& a, const CView& b) { return a.text_ == b.text_; }
    friend std::ostream& operator<<(std::ostream& out, const CView& view) { return out << view.text_; }

   private:
    std::string_view text_;
  };

  CSharedText() = default;
  CSharedText(std::nullptr_t) {}  // NOLINT: reads like a null shared pointer
  // A new text holding a copy of "text".
  static CSharedText Make(std::string_view text) {
    void* memory = ::operator new(sizeof(CBlock) + text.size() + 1);
    auto* block = new (memory) CBlock;
    block->size = static_cast<uint32_t>(text.size());
    char* characters = TextOf(block);
    std::memcpy(characters, text.data(), text.size());
    characters[text.size()] = '\0';
    return CSharedText(block);
  }
  // A copy of a shared std::string's text (null stays null).
  CSharedText(const std::shared_ptr<std::string>& text)  // NOLINT: assignment from a shared string
      : CSharedText(text ? Make(*text) : CSharedText()) {}

  CSharedText(const CSharedText& other) : block_(other.block_) {
    if (block_ != nullptr) block_->count.fetch_add(1, std::memory_order_relaxed);
  }
  CSharedText(CSharedText&& other) noexcept : block_(other.block_) { other.block_ = nullptr; }
  CSharedText& operator=(CSharedText other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~CSharedText() { Release(); }

  void reset() { CSharedText().swap(*this); }
  void swap(CSharedText& other) noexcept { std::swap(block_, other.block_); }
  explicit operator bool() const { return block_ != nullptr; }
  // The identity of the shared text (null for none).
  const void* get() const { return block_; }

  // The text; the reference must not be null.
  CView operator*() const { return CView(view()); }
  struct CArrow {
    CView text;
    const CView* operator->() const { return &text; }
  };
  CArrow operator->() const { return CArrow{CView(view())}; }
  std::string_view view() const {
    return block_ == nullptr ? std::string_view() : std::string_view(TextOf(block_), block_->size);
  }

  friend bool operator==(const CSharedText& a, const CSharedText& b) { return a.block_ == b.block_; }
  friend bool operator==(const CSharedText& a, std::nullptr_t) { return a.block_ == nullptr; }
  friend std::ostream& operator<<(std::ostream& out, const CSharedText& text) {
    return text ? out << '"' << text.view() << '"' : out << "(null)";
  }

 private:
  // The characters follow the block in the same allocation.
  struct CBlock {
    std::atomic<uint32_t> count{1};
    uint32_t size = 0;
  };
  static char* TextOf(CBlock* block) { return reinterpret_cast<char*>(block + 1); }
  explicit CSharedText(CBlock* block) : block_(block) {}
  void Release() {
    if (block_ != nullptr && block_->count.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      block_->~CBlock();
      ::operator delete(block_);
    }
    block_ = nullptr;
  }

  CBlock* block_ = nullptr;
};

// An immutable narrow text with value semantics, held in 8 bytes: empty is no allocation at all,
// and copies share one allocation. For node texts that are mostly empty or short (security
// attributes, target paths): 8 bytes in the node where a std::string takes 32. Compares, converts
// and reads like a std::string.
class CCompactText {
 public:
  CCompactText() = default;
  CCompactText(std::string_view text) : text_(text.empty() ? CSharedText() : CSharedText::Make(text)) {}  // NOLINT
  CCompactText(const std::string& text) : CCompactText(std::string_view(text)) {}  // NOLINT
  CCompactText(const char* text) : CCompactText(std::string_view(text)) {}          // NOLINT

  std::string_view view() const { return text_.view(); }
  operator std::string_view() const { return view(); }  // NOLINT: reads like a string
  operator std::string() const { return std::string(view()); }  // NOLINT
  bool empty() const { return !text_; }
  size_t size() const { return view().size(); }
  const char* data() const { return view().data(); }
  size_t find(std::string_view part, size_t from = 0) const { return view().find(part, from); }

  friend bool operator==(const CCompactText& a, const CCompactText& b) { return a.view() == b.view(); }
  friend bool operator==(const CCompactText& a, std::string_view b) { return a.view() == b; }
  friend bool operator==(const CCompactText& a, const std::string& b) { return a.view() == b; }
  friend bool operator==(const CCompactText& a, const char* b) { return a.view() == b; }
  friend std::ostream& operator<<(std::ostream& out, const CCompactText& text) { return out << text.view(); }

 private:
  CSharedText text_;
};
