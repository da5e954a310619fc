// What sign-in wants to know of a bundle before anything is installed.
#pragma once

#include "Foundation/NSString.h"
#include "Foundation/SecretBytes.h"
#include "Security/BundleInspection.h"

#include <QStringList>

namespace kf {

struct BundleRequest {
    std::string login; ///< UTF-8
    std::string file;
    SecretBytes passphrase; ///< UTF-8; may be empty
    Bytes authority;        ///< DER of the institution's authority
};

/// What a look at a bundle finds, not yet in words.
struct BundleLook {
    Ref<NSString> base64; ///< what was looked at
    Result<BundleInspection> certificate;
};

struct BundleCheck {
    enum class Place { none, file, passphrase };
    Place place = Place::none; ///< where the problem lies; none: the bundle can be installed
    QString problem;           ///< in words for the person
    OSStatus status = errSecSuccess;
    QStringList warnings; ///< what the person should know before going on

    // Of a bundle that can be installed:
    Ref<NSString> base64; ///< what was checked
    BundleInspection certificate;

    bool isGood() const noexcept { return place == Place::none; }
};

/// The address that the build's e-mail domain gives a login name.
std::string emailAddressOf(const std::string& login);

/// Opens a bundle that was read already (base64; the request's file is not looked at) and looks at its certificates;
/// changes nothing. Takes seconds where the bundle's iteration counts are high. Any thread, and before Qt's application
/// is made.
BundleLook lookAtBundle(Ref<NSString> base64, const BundleRequest& request);

/// What is to be said of it, and of other authorities of the institution's name in the keychains. Any thread.
BundleCheck checkBundle(BundleLook look, const BundleRequest& request);

/// Reads the request's file, looks and checks. Any thread.
BundleCheck checkBundle(const BundleRequest& request);

/// A certificate's name, issuer and time of validity, in lines.
QString describeCertificate(const BundleInspection& certificate);

} // namespace kf
