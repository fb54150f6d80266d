#pragma once
// SHA-256 over bytes handed in any number of pieces, as lowercase hex.

#include <memory>
#include <string>
#include <string_view>

namespace kivreg::rt {

class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;

    void update(std::string_view bytes);
    // The digest of everything handed in; the object is used up then.
    std::string hexDigest();

private:
    struct Context;
    std::unique_ptr<Context> m_context;
};

std::string sha256Hex(std::string_view bytes);

}  // namespace kivreg::rt
