// Keychains as NSS databases ("sql:" directories), which the browsers read too.
//
// Objects are read and written through raw PKCS#11 on the slot of each
// database. NSS's own certificate cache stays out: it merges the same
// certificate across databases and deletes it from the wrong one.
#pragma once

#include "Security/Keychain/Backend.h"

namespace kf::keychain {

class NSSBackend final : public Backend {
public:
    NSSBackend();
    ~NSSBackend() override;

    /// True where the directory holds a part of a database, be it damaged.
    bool exists(const std::string& path) override;
    /// Checks the files before NSS sees them (DatabaseFiles.h). A directory that was made anew is opened anew.
    Result<std::shared_ptr<Database>> open(const std::string& path, Access access) override;
    /// Ends NSS too, where it was started here and no database is in use any more.
    void closeAll() override;

private:
    class Slots;
    std::unique_ptr<Slots> slots_;
};

} // namespace kf::keychain
