#pragma once

#include <string>

#include <zarip/crypto/RsaKeys.h>

namespace zarip::crypto {

/// Makes, loads and saves RSA keys. *Thread-safe.*
///
/// Keys are exchanged as PEM text. Both forms of it are read, whichever it is:
///
/// | format   | public key               | private key               |
/// |----------|--------------------------|---------------------------|
/// | `kPKCS1` | "BEGIN RSA PUBLIC KEY"   | "BEGIN RSA PRIVATE KEY"   |
/// | `kPKCS8` | "BEGIN PUBLIC KEY"       | "BEGIN PRIVATE KEY"       |
///
/// Where several stand in a text the first of the kind asked for counts: the first block whose label ends
/// with "PUBLIC KEY" or "PRIVATE KEY". Other blocks, such as certificates, and text around the blocks are
/// skipped; what follows the key is not read. Loading throws `CryptoException`:
/// - "no public key in this text", "no private key in this text" where no block is of that kind
/// - "encrypted keys are not supported"
/// - "invalid PEM text": a block that does not end with its own label, other characters than base64, a text
///   of more than 64 KiB
/// - "invalid key encoding": not in the exact form that DER prescribes, or something behind the key
/// - "unsupported key": of another algorithm ("EC PRIVATE KEY" for example), with more than two primes, or
///   not of 1024 to 8192 bits
/// - "invalid key": numbers that do not belong together
class ZARIP_EXPORT KeyFactory {
public:
    enum Format { kPKCS1, kPKCS8 };

    KeyFactory() = delete;

    /// Takes a second for 2048 bits and much longer for more.
    /// @param bits  2048, 3072 or 4096; otherwise throws `CryptoException` "invalid key size".
    static RsaPrivateKey GenerateRsa(unsigned int bits);

    static RsaPublicKey LoadPublicKey(const std::string& pem);
    static RsaPrivateKey LoadPrivateKey(const void* pem, unsigned int length);
    static RsaPrivateKey LoadPrivateKey(const SecureBuffer& pem);

    static std::string SavePublicKey(const RsaPublicKey& key, Format format = kPKCS8);

    /// The text, with no zero behind it; a file with it is for its owner alone.
    static SecureBuffer SavePrivateKey(const RsaPrivateKey& key, Format format = kPKCS8);
};

}  // namespace zarip::crypto
