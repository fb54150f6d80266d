#pragma once
#include <array>
#include <optional>

#include "http/IURL.h"

namespace kivreg {

class URL final : public IURL {
public:
    const char16_t* getRawPath() const override { return get(RAW_PATH); }
    const char16_t* getQuery() const override { return get(QUERY); }
    const char16_t* getFragment() const override { return get(FRAGMENT); }

    std::u16string getUrl() const override { return m_url; }
    void setUrl(const char16_t* url) override;

    const char16_t* getService() const override { return get(SERVICE); }
    bool isSecure() const override;

    const char16_t* getHport() const override { return get(HPORT); }
    const char16_t* getHost() const override { return get(HOST); }
    const char16_t* getProxy() const override { return get(PROXY); }
    void setProxy(const char16_t* v) override { set(PROXY, v); }
    const char16_t* getPport() const override { return get(PPORT); }
    void setPport(const char16_t* v) override { set(PPORT, v); }
    const char16_t* getHuser() const override { return get(HUSER); }
    void setHuser(const char16_t* v) override { set(HUSER, v); }
    const char16_t* getHpass() const override { return get(HPASS); }
    void setHpass(const char16_t* v) override { set(HPASS, v); }
    const char16_t* getPuser() const override { return get(PUSER); }
    void setPuser(const char16_t* v) override { set(PUSER, v); }
    const char16_t* getPpass() const override { return get(PPASS); }
    void setPpass(const char16_t* v) override { set(PPASS, v); }

private:
    // %xx sequences back to the UTF-8 bytes they stand for.
    static std::u16string unescape(std::u16string_view text);

    enum Part {
        SERVICE,
        HOST,
        HPORT,
        HUSER,
        HPASS,
        PROXY,
        PPORT,
        PUSER,
        PPASS,
        RAW_PATH,
        QUERY,
        FRAGMENT,
        PART_COUNT
    };

    const char16_t* get(Part p) const { return m_parts[p] ? m_parts[p]->c_str() : nullptr; }
    void set(Part p, const char16_t* v);
    void set(Part p, std::u16string_view v) { m_parts[p] = std::u16string(v); }

    std::u16string m_url;
    std::array<std::optional<std::u16string>, PART_COUNT> m_parts;
};

}  // namespace kivreg
