// SPDX-License-Identifier: MIT

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
/// With a pass phrase a private key is "BEGIN ENCRYPTED PRIVATE KEY": PKCS #8 with PBES2, PBKDF2 and AES in
/// CBC mode, as `openssl genpkey -aes256` writes it.
///
/// If several keys stand in a text, the first of the kind asked for counts: the first block whose label ends
/// with "PUBLIC KEY" or "PRIVATE KEY". Other blocks, such as certificates, and text around the blocks are
/// skipped, as is a mark of the byte order before them; what follows the key is not read. Loading throws
/// `CryptoException`:
/// - "no public key in this text", "no private key in this text" if no block is of that kind
/// - "the key needs a pass phrase", "empty pass phrase", "wrong pass phrase"
/// - "encrypted keys are not supported" for the older form, "BEGIN RSA PRIVATE KEY" with "Proc-Type:
/// 4,ENCRYPTED"
/// - "invalid PEM text": a block that does not end with its own label, other characters than base64, a text
///   of more than 64 KiB
/// - "invalid key encoding": not in the exact form that DER prescribes, or something after the key
/// - "unsupported key": of another algorithm ("EC PRIVATE KEY" for example), with more than two primes, or
///   not of 1024 to 8192 bits; encrypted in another way, or with more than 5,000,000 iterations
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

    /// The same for a key that may be encrypted; the pass phrase of one that is not is ignored.
    static RsaPrivateKey LoadPrivateKey(const SecureBuffer& pem, const SecureBuffer& passPhrase);

    static std::string SavePublicKey(const RsaPublicKey& key, Format format = kPKCS8);

    /// The text, with no zero after it; for a file take `SavePrivateKeyFile`.
    static SecureBuffer SavePrivateKey(const RsaPrivateKey& key, Format format = kPKCS8);

    /// Encrypted with AES-256 and a key that 200,000 iterations with HMAC-SHA256 make of the pass phrase.
    /// Throws `CryptoException` "empty pass phrase".
    static SecureBuffer SavePrivateKey(const RsaPrivateKey& key, const SecureBuffer& passPhrase);

    /// Writes the key to a file that its owner alone can read and write (0600), whatever the mode of a file
    /// that it replaces and the umask are. The file has the old content or the new whatever happens; nothing
    /// of the key stays in memory that is not wiped. Throws `osa::IOException` "Couldn't write '...'" and the
    /// number of the error.
    static void SavePrivateKeyFile(const std::string& path, const RsaPrivateKey& key);
    static void SavePrivateKeyFile(const std::string& path, const RsaPrivateKey& key,
                                   const SecureBuffer& passPhrase);

    /// Reads a key from a file into memory that is wiped. Throws `CryptoException` "key file '...' is open to
    /// others" for one that others than its owner may read or write, or whose owner is neither this user nor
    /// root (root takes any owner's), and `osa::IOException` "Couldn't read '...'".
    static RsaPrivateKey LoadPrivateKeyFile(const std::string& path);
    static RsaPrivateKey LoadPrivateKeyFile(const std::string& path, const SecureBuffer& passPhrase);
};

}  // namespace zarip::crypto
