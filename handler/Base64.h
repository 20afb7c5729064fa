// Base64 (RFC 4648, section 4) with the semantics that the token exchanges rely on.
#pragma once

extern const char base64_table[66];  // the alphabet, then the pad character

// Encodes into `out`, padded, without line breaks. At most `capacity` - 1 characters are copied; the last
// byte of `out` is always NUL, so a longer text is cut. Always 0.
int ToB64Enc(const char* in, int in_length, char* out, int capacity);

// Decodes a NUL-terminated text into `out`, all of which is zeroed first; copies what fits. The result is
// the full decoded length, which can be more than `capacity`.
int ToB64Dec(const char* text, char* out, int capacity);

// Decodes a NUL-terminated text into a new array that the caller releases with delete[]. Characters outside
// the alphabet are skipped; the end or the first "=" stops it; a final single character is dropped.
unsigned char* Base64Decode(const char* text, int* length);

// Decodes a text in place and terminates it.
void Base64DecodeString(char* text);
