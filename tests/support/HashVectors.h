// The published test vectors of the services' content hashes, for every test that checks a
// calculator of them (the library's and the emulators' own).
#pragma once

#include <cstddef>
#include <utility>

namespace test {

// Dropbox's content hash of n bytes of 'A', hex.
inline constexpr std::pair<std::size_t, const char*> kDropboxVectors[] = {
    {0, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {1, "1cd6ef71e6e0ff46ad2609d403dc3fee244417089aa4461245a4e4fe23a55e42"},
    {4096, "8620913d33852befe09f16fff8fd75f77a83160d29f76f07e0276e9690903035"},
    {4194303, "647c8627d70f7a7d13ce96b1e7710a771a55d41a62c3da490d92e56044d311fa"},
    {4194304, "d4d63bac5b866c71620185392a8a6218ac1092454a2d16f820363b69852befa3"},
    {4194305, "8f553da8d00d0bf509d8470e242888be33019c20c0544811f5b2b89e98360b92"},
    {8388608, "e08b3ba1f538804075c5f939accdeaa9efc7b5c01865c94a41e78ca6550a88e7"},
};

// Microsoft's QuickXorHash: input and digest, both base64.
inline constexpr std::pair<const char*, const char*> kQuickXorVectors[] = {
    {"", "AAAAAAAAAAAAAAAAAAAAAAAAAAA="},
    {"Sg==", "SgAAAAAAAAAAAAAAAQAAAAAAAAA="},
    {"tbQ=", "taAFAAAAAAAAAAAAAgAAAAAAAAA="},
    {"0pZP", "0rDEEwAAAAAAAAAAAwAAAAAAAAA="},
    {"jRRDVA==", "jaDAEKgAAAAAAAAABAAAAAAAAAA="},
    {"2fuxhBJXtpWFe8dOfdGeHw==", "O9tHLAghgSvYohKFyMMxnNCHaHg="},
};

}  // namespace test
