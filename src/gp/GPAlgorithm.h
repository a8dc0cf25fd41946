#pragma once

// The library's version, identifiers in the shape of a UUID, base64, and a block cipher of Blowfish's
// structure. Everything returned belongs to the caller. The identifiers and key texts draw from the process-
// wide rand(), so they disturb, and are disturbed by, whoever else uses it; the rest may run on any thread.

class GPData;
class GPString;

class GPAlgorithm {
public:
    GPAlgorithm() = delete;

    // The version of the foundation library.
    static const char* GPLibVersion();

    // An identifier seeded with the time of day in seconds.
    static GPString* createGUID();

    // An identifier of 36 characters, the same for the same seed and system library.
    static GPString* generateGUID(unsigned int seed);

    // The identifier of this machine, made of its first hardware address; null if it has none.
    static GPString* getUUID();

    // The identifier that belongs to a hardware address, written as six hexadecimal numbers with ":" between
    // them; null for a text of fewer.
    static GPString* identifierForMACAddress(GPString* address);

    // Base64 text of the bytes. The data reports 3 bytes plus 3 for each group of three, which is the text's
    // real size at three groups alone. Null when that text would be longer than an int can say.
    static GPData* encodeBase64(const char* bytes, int length);
    static GPData* encodeBase64(GPData* data);

    // The bytes of a base64 text. Characters outside the alphabet are skipped, "=" ends the text.
    static GPData* decodeBase64(const char* text, int length);
    static GPData* decodeBase64(GPData* data);

    // Cipher text of the bytes, padded with zero bytes to a multiple of 8; the length is not stored.
    static GPData* blowfishEncrypt(const char* bytes, int length, const char* key);

    // Plain text with its padding; null unless the length is a multiple of 8.
    static GPData* blowfishDecrypt(const char* bytes, int length, const char* key);

    // Cipher text of a text and its terminator, as base64. Texts of more than 7 characters do not survive the
    // length that encodeBase64 reports.
    static GPString* blowfishEncryptText(const char* text, const char* key);

    // The text behind a base64 cipher text; null if that has no whole number of blocks.
    static GPString* blowfishDecryptText(const char* text, const char* key);

    // A random key text of at most `length` bytes rounded up to a multiple of 4: it ends at the first zero.
    static GPString* blowfishCreateKey(int length);
};
