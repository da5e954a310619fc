// Templates, finding and reading of PKCS#11 objects. For source files only.
#pragma once

#include "Security/Keychain/Backend.h"
#include "Security/Keychain/ScopedNSS.h"

#include <deque>
#include <initializer_list>

namespace kf::keychain {

/// The attributes of an object, as PKCS#11 takes them. Bytes are borrowed; numbers are kept here.
class Template {
public:
    Template& add(CK_ATTRIBUTE_TYPE type, std::span<const std::uint8_t> value)
    {
        // PKCS#11 takes templates that it only reads without const.
        attributes_.push_back({type, const_cast<std::uint8_t*>(value.data()), value.size()});
        return *this;
    }
    Template& add(CK_ATTRIBUTE_TYPE type, std::string_view value)
    {
        return add(type, std::span(reinterpret_cast<const std::uint8_t*>(value.data()), value.size()));
    }
    Template& addWord(CK_ATTRIBUTE_TYPE type, CK_ULONG value)
    {
        words_.push_back(value);
        attributes_.push_back({type, &words_.back(), sizeof(CK_ULONG)});
        return *this;
    }
    Template& addBool(CK_ATTRIBUTE_TYPE type, bool value)
    {
        static CK_BBOOL yes = CK_TRUE;
        static CK_BBOOL no = CK_FALSE;
        attributes_.push_back({type, value ? &yes : &no, sizeof(CK_BBOOL)});
        return *this;
    }
    CK_ATTRIBUTE* data() noexcept { return attributes_.data(); }
    CK_ULONG size() const noexcept { return attributes_.size(); }

private:
    std::vector<CK_ATTRIBUTE> attributes_;
    std::deque<CK_ULONG> words_; // a deque: what points into it stays valid
};

Result<std::vector<CK_OBJECT_HANDLE>> findObjects(const ScopedSession& session, Template& wanted);
/// The attributes' values in the order asked for, in one query; empty where the object lacks one. errSecInvalidItemRef
/// where the object is gone.
Result<std::vector<Bytes>> readAttributes(
    const ScopedSession& session, CK_OBJECT_HANDLE object, std::initializer_list<CK_ATTRIBUTE_TYPE> types);
/// `fallback` where the object lacks the attribute or it is no number.
CK_ULONG readWord(const ScopedSession& session, CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type, CK_ULONG fallback);

} // namespace kf::keychain
