#pragma once
// A URL split into its parts. Getters return the stored text, or null when
// the part was never set; setters copy (null clears the part).

#include <memory>
#include <string>
#include <string_view>

namespace kivreg {

class IURL {
public:
    virtual ~IURL() = default;

    // The path as written in the URL text: the request target.
    virtual const char16_t* getRawPath() const = 0;
    virtual const char16_t* getQuery() const = 0;
    virtual const char16_t* getFragment() const = 0;

    // The URL text as set, without any user name or password it carried.
    virtual std::u16string getUrl() const = 0;
    // Splits the text into its parts. A user name and password in the text go
    // to the host user and password; otherwise those stay as they were set.
    virtual void setUrl(const char16_t* url) = 0;

    virtual const char16_t* getService() const = 0;  // the scheme
    virtual bool isSecure() const = 0;               // scheme "https", any case

    virtual const char16_t* getHport() const = 0;
    virtual const char16_t* getHost() const = 0;
    virtual const char16_t* getProxy() const = 0;
    virtual void setProxy(const char16_t* proxy) = 0;
    virtual const char16_t* getPport() const = 0;
    virtual void setPport(const char16_t* port) = 0;
    virtual const char16_t* getHuser() const = 0;
    virtual void setHuser(const char16_t* user) = 0;
    virtual const char16_t* getHpass() const = 0;
    virtual void setHpass(const char16_t* password) = 0;
    virtual const char16_t* getPuser() const = 0;
    virtual void setPuser(const char16_t* user) = 0;
    virtual const char16_t* getPpass() const = 0;
    virtual void setPpass(const char16_t* password) = 0;
};

// 0 and a new empty URL, or -1 when it could not be made.
int createIURL(std::unique_ptr<IURL>& out);

}  // namespace kivreg
