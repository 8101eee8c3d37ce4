// An identifier that nobody can guess, as text and back, and numbers that tell later from earlier.

#include "ky/StampGenerator.h"
#include "ky/UUID.h"
#include "ky/kyRandomUtils.h"

#include <array>
#include <iostream>
#include <string>

int main()
{
    // Once, at start-up: the generator that is there by default gives the same values in every run.
    ky::kyRandomUtils::SetRandGenerator(&ky::kyRandomUtils::SystemRand);
    std::array<char, 16> bytes;
    if (ky::kyRandomUtils::Rand(bytes.data(), bytes.size()) == 0)
        return 1;
    std::string text;
    ky::UUID::BinaryToString<ky::UUID::Dashed>(bytes.data(), text);
    std::cout << text << '\n';

    std::array<unsigned char, 16> read;
    bool isGood = ky::UUID::StringToBinary(text, read.data());
    std::string compact;
    ky::UUID::BinaryToString<ky::UUID::Compact>(read.data(), compact);
    isGood =
        isGood && compact.size() == 32 && !ky::UUID::StringToBinary("no identifier", read.data());

    ky::StampGenerator stamps;
    const ky::Stamp first = stamps.generateStamp();
    const ky::Stamp second = stamps.generateStamp();
    std::cout << "stamps " << first.value() << " and " << second.value() << '\n';
    return isGood && first < second ? 0 : 1;
}
