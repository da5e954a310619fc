// A search's way through keychains, one after the other.
#pragma once

#include "Security/Result.h"
#include "Security/SecKeychain.h"

#include <deque>
#include <functional>
#include <vector>

namespace kf::keychain {

/// Gives the finds of each keychain in turn. A keychain is read when its turn
/// comes; one that cannot be read gives its error once.
template <class T>
class KeychainWalk {
public:
    using Find = std::function<Result<std::vector<Ref<T>>>(const SecKeychainRef& keychain)>;

    KeychainWalk(std::vector<SecKeychainRef> keychains, Find find)
        : keychains_(keychains.begin(), keychains.end()), find_(std::move(find))
    {
    }

    /// errSecItemNotFound at the end, then for ever.
    Result<Ref<T>> next()
    {
        while (found_.empty()) {
            if (keychains_.empty())
                return Failure{errSecItemNotFound};
            const SecKeychainRef keychain = keychains_.front();
            keychains_.pop_front();
            auto found = find_(keychain);
            if (!found)
                return found.failure();
            found_.assign(found->begin(), found->end());
        }
        Ref<T> first = found_.front();
        found_.pop_front();
        return first;
    }

private:
    std::deque<SecKeychainRef> keychains_;
    std::deque<Ref<T>> found_;
    Find find_;
};

} // namespace kf::keychain
