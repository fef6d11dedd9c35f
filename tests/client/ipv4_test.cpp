// isIpv4Address against QHostAddress itself: the known quirks, then a large
// seeded corpus of random words. KEP_IPV4_SEED repeats a run. Prints the
// first mismatches and fails on any.
#include "client/commands/ipv4address.h"

#include <QHostAddress>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string_view>

using namespace std::literals;

static int mismatches = 0, accepted = 0;

static void compare(const QString &word)
{
    const bool qt = QHostAddress(word).protocol() == QAbstractSocket::IPv4Protocol;
    accepted += qt;
    if (isIpv4Address(word) != qt && ++mismatches <= 10)
        std::printf("mismatch: \"%s\" (%s): QHostAddress %s\n", qPrintable(word),
                    word.toUtf8().toHex(' ').constData(), qt ? "accepts" : "rejects");
}

int main()
{
    static const std::u16string_view quirks[]
        = {// short forms and their ranges
           u"127.1", u"10", u"1.2.3", u"1.2.3.4", u"0.0.0.0", u"255.255.255.255", u"256.1.1.1", u"1.2.3.256",
           u"1.2.65535", u"1.2.65536", u"1.16777215", u"1.16777216", u"4294967295", u"4294967296",
           // hexadecimal, octal and very long numbers
           u"0xffffffff", u"0x100000000", u"037777777777", u"040000000000", u"18446744073709551615",
           u"18446744073709551616", u"99999999999999999999999.1", u"0x7f.1", u"0X7F.0.0.1", u"0x7g.1", u"0x",
           u"0x.1", u"0xx1", u"017.0.0.1", u"08.1.1.1", u"0009.1", u"00000000000000000000000001.1",
           u"0x000000000000000000000001.1",
           // blanks of every kind
           u" 1.2.3.4 ", u"\t1.2.3.4\n", u"1. 2.3.4", u"1.  2.3.4", u"1 .2.3.4", u"1.2.3.4 x",
           u"\u00a01.2.3.4\u3000", u"1.\u20032", u"1.\u200b2",
           // signs
           u"+1.2.3.4", u"1.+2.3.4", u"+ 1.2", u"++1", u"+-1", u"-1.2.3.4", u"1.-0.3.4", u"-0",
           // dots out of place
           u"1.2.3.4.", u"1.2.3.", u"1..2.3", u".1.2.3", u"1.2.3.4.5", u"", u" ", u".",
           // digits that are not ASCII, control characters and NULs
           u"\u0661.2.3.4", u"\uff11.2.3.4", u"1.2.3.\u0664", u"\u007f1.2", u"1.2.3.4\0x"sv, u"\0"sv,
           u"1\0\u0661"sv,
           // other notations
           u"::ffff:1.2.3.4", u"::1", u"::127.1", u"1.2.3.4:80", u"1:2", u"1.2.3.4%eth0", u"localhost",
           u"1e3", u"0b1", u"1,2"};
    for (const std::u16string_view q : quirks)
        compare(QString::fromUtf16(q.data(), int(q.size())));
    const char *seedText = std::getenv("KEP_IPV4_SEED");
    const unsigned long long seed = seedText ? std::strtoull(seedText, nullptr, 0) : std::random_device()();
    std::mt19937_64 random(seed);
    auto below = [&random](size_t n) { return size_t(random() % n); };
    // Words of up to six parts, each an optional prefix and a few characters, drawn mostly from digits and
    // the characters the parser reacts to; now and then one more character anywhere.
    static const std::u16string_view alphabet = u"0123456701....xXafAFg +-\t:\u0661\uff11\u00a0"sv;
    static const char16_t *const prefixes[] = {u"", u"", u"0", u"0x", u"0X", u"+", u" ", u"-", u"00"};
    const long count = 600000;
    for (long n = 0; n < count; ++n) {
        QString word;
        for (size_t part = below(6); part-- > 0;) {
            word += QString::fromUtf16(prefixes[below(std::size(prefixes))]);
            for (size_t i = below(4) ? 1 + below(3) : 1 + below(12); i > 0; --i)
                word += QChar(alphabet[below(below(3) ? 8 : alphabet.size())]);
            word += part ? QStringLiteral(".") : QString();
        }
        if (below(3) == 0)
            word.insert(int(below(word.size() + 1)), QChar(alphabet[below(alphabet.size())]));
        compare(word);
    }
    std::printf("%zu quirks and, from seed %llu, %ld random words: QHostAddress accepted %d; %d mismatches\n",
                std::size(quirks), seed, count, accepted, mismatches);
    return mismatches == 0 ? 0 : 1;
}
