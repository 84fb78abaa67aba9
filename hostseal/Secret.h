// A byte buffer for facts and keys: wiped when it is replaced or goes away.
// It never grows in place, so no stale copy is left behind by a reallocation.
#pragma once

#include <openssl/crypto.h>

#include <cstddef>
#include <cstring>
#include <utility>

namespace hostseal {

class SecretBytes {
  public:
    SecretBytes() = default;
    explicit SecretBytes(size_t size) { Allocate(size); }
    SecretBytes(const void* bytes, size_t size) {
        if (Allocate(size) && size != 0)
            memcpy(data_, bytes, size);
    }
    ~SecretBytes() { Clear(); }

    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    SecretBytes(SecretBytes&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)),
          size_(std::exchange(other.size_, 0)),
          failed_(std::exchange(other.failed_, false)) {}
    SecretBytes& operator=(SecretBytes&& other) noexcept {
        if (this != &other) {
            Clear();
            data_ = std::exchange(other.data_, nullptr);
            size_ = std::exchange(other.size_, 0);
            failed_ = std::exchange(other.failed_, false);
        }
        return *this;
    }

    unsigned char* data() { return data_; }
    const unsigned char* data() const { return data_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }

    // False when memory ran out for the size asked; the buffer is then empty.
    bool ok() const { return !failed_; }

    void Clear() {
        OPENSSL_clear_free(data_, size_);
        data_ = nullptr;
        size_ = 0;
        failed_ = false;
    }

  private:
    bool Allocate(size_t size) {
        if (size == 0)
            return true;
        data_ = static_cast<unsigned char*>(OPENSSL_zalloc(size));
        size_ = data_ != nullptr ? size : 0;
        failed_ = data_ == nullptr;
        return !failed_;
    }

    unsigned char* data_ = nullptr;
    size_t size_ = 0;
    bool failed_ = false;
};

}  // namespace hostseal
