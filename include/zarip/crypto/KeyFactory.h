// SPDX-License-Identifier: MIT

#pragma once

#include <string>

#include <zarip/crypto/RsaKeys.h>

namespace zarip::crypto {

/// Makes, loads and saves RSA keys. *Thread-safe.*
///
/// Keys are exchanged as PEM text in two formats. Loading accepts both:
///
/// | format   | public key               | private key               |
/// |----------|--------------------------|---------------------------|
/// | `kPKCS1` | "BEGIN RSA PUBLIC KEY"   | "BEGIN RSA PRIVATE KEY"   |
/// | `kPKCS8` | "BEGIN PUBLIC KEY"       | "BEGIN PRIVATE KEY"       |
///
/// An encrypted private key is a block "BEGIN ENCRYPTED PRIVATE KEY": PKCS #8 with PBES2, PBKDF2 and AES in
/// CBC mode, as `openssl genpkey -aes256` writes it.
///
/// If a text contains several keys, the first of the requested kind is loaded, which is the first block whose
/// label ends with "PUBLIC KEY" or "PRIVATE KEY". Other blocks, such as certificates, text around the blocks,
/// and a byte order mark are skipped. The text after the key is not read. Loading throws `CryptoException`:
/// - "no public key in this text", "no private key in this text": no block is of that kind
/// - "the key needs a pass phrase", "empty pass phrase", "wrong pass phrase"
/// - "encrypted keys are not supported": the older form, "BEGIN RSA PRIVATE KEY" with "Proc-Type:
///   4,ENCRYPTED"
/// - "invalid PEM text": a block that does not end with its own label, characters other than base64, or a
///   text of more than 64 KiB
/// - "invalid key encoding": the encoding is not exactly DER, or bytes follow the key
/// - "unsupported key": the key is of another algorithm (for example "EC PRIVATE KEY"), has more than two
///   primes, does not have 1024 to 8192 bits, or is encrypted in another way or with more than 5,000,000
///   iterations
/// - "invalid key": the numbers of the key do not belong together
class ZARIP_EXPORT KeyFactory {
public:
    enum Format { kPKCS1, kPKCS8 };

    KeyFactory() = delete;

    /// Generates a key, which takes a second for 2048 bits and much longer for more.
    /// @param bits  2048, 3072 or 4096; otherwise throws `CryptoException` "invalid key size".
    static RsaPrivateKey GenerateRsa(unsigned int bits);

    static RsaPublicKey LoadPublicKey(const std::string& pem);
    static RsaPrivateKey LoadPrivateKey(const void* pem, unsigned int length);
    static RsaPrivateKey LoadPrivateKey(const SecureBuffer& pem);

    /// Loads a key that may be encrypted. If it is not, the pass phrase is ignored.
    static RsaPrivateKey LoadPrivateKey(const SecureBuffer& pem, const SecureBuffer& passPhrase);

    static std::string SavePublicKey(const RsaPublicKey& key, Format format = kPKCS8);

    /// Returns the text without a final zero byte. Use `SavePrivateKeyFile` to write a file.
    static SecureBuffer SavePrivateKey(const RsaPrivateKey& key, Format format = kPKCS8);

    /// Encrypts the key with AES-256. The encryption key is derived from the pass phrase with 200,000
    /// iterations of HMAC-SHA256. Throws `CryptoException` "empty pass phrase".
    static SecureBuffer SavePrivateKey(const RsaPrivateKey& key, const SecureBuffer& passPhrase);

    /// Writes the key to a file that only its owner can read and write (0600), independently of the umask and
    /// of the mode of a file that it replaces. The file has the complete old or new content at any time. No
    /// memory that contained the key is left unwiped. Throws `osa::IOException` "Couldn't write '...'" and
    /// the error number.
    static void SavePrivateKeyFile(const std::string& path, const RsaPrivateKey& key);
    static void SavePrivateKeyFile(const std::string& path, const RsaPrivateKey& key,
                                   const SecureBuffer& passPhrase);

    /// Reads a key from a file, through memory that is wiped. Throws `CryptoException` "key file '...' is
    /// open to others" if users other than the owner may read or write the file, or if its owner is neither
    /// this user nor root. A process of root accepts any owner. Throws `osa::IOException` "Couldn't read
    /// '...'".
    static RsaPrivateKey LoadPrivateKeyFile(const std::string& path);
    static RsaPrivateKey LoadPrivateKeyFile(const std::string& path, const SecureBuffer& passPhrase);
};

}  // namespace zarip::crypto
