// isIpv4Address against QHostAddress itself: the known quirks, then a large
// seeded corpus of random words. KEP_IPV4_SEED repeats a run; KEP_IPV4_WORDS
// sets the corpus size. Prints the first mismatches and fails on any.
#include "commands/ipv4address.h"

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
    static const std::u16string_view quirks[] = {
        u"127.1", u"10", u"1.2.3", u"1.2.3.4", u"0.0.0.0", u"255.255.255.255", u"256.1.1.1",
        u"1.2.3.256", u"1.2.65535", u"1.2.65536", u"1.16777215", u"1.16777216", u"4294967295",
        u"4294967296", u"0xffffffff", u"0x100000000", u"037777777777", u"040000000000",
        u"18446744073709551615", u"18446744073709551616", u"99999999999999999999999.1",
        u"0x7f.1", u"0X7F.0.0.1", u"0x7g.1", u"0x", u"0x.1", u"0xx1", u"017.0.0.1", u"08.1.1.1",
        u"0009.1", u"00000000000000000000000001.1", u"0x000000000000000000000001.1",
        u" 1.2.3.4 ", u"\t1.2.3.4\n", u"1. 2.3.4", u"1.  2.3.4", u"1 .2.3.4", u"1.2.3.4 x",
        u"\u00a01.2.3.4\u3000", u"1.\u20032", u"1.\u200b2", u"+1.2.3.4", u"1.+2.3.4", u"+ 1.2",
        u"++1", u"+-1", u"-1.2.3.4", u"1.-0.3.4", u"-0", u"1.2.3.4.", u"1.2.3.", u"1..2.3",
        u".1.2.3", u"1.2.3.4.5", u"", u" ", u".", u"\u0661.2.3.4", u"\uff11.2.3.4", u"1.2.3.\u0664",
        u"\u007f1.2", u"1.2.3.4\0x"sv, u"\0"sv, u"1\0\u0661"sv, u"::ffff:1.2.3.4", u"::1",
        u"::127.1", u"1.2.3.4:80", u"1:2", u"1.2.3.4%eth0", u"localhost", u"1e3", u"0b1", u"1,2"};
    for (const std::u16string_view q : quirks)
        compare(QString::fromUtf16(q.data(), int(q.size())));
    std::printf("%zu quirks, QHostAddress accepted %d; %d mismatches\n", std::size(quirks), accepted, mismatches);
    accepted = 0;

    const char *seedText = std::getenv("KEP_IPV4_SEED"), *countText = std::getenv("KEP_IPV4_WORDS");
    const unsigned long long seed = seedText ? std::strtoull(seedText, nullptr, 0) : std::random_device()();
    const long count = countText ? std::atol(countText) : 600000;
    std::mt19937_64 random(seed);
    auto below = [&random](int n) { return int(random() % unsigned(n)); };
    // Characters the parser reacts to, weighted towards digits and dots.
    static const std::u16string_view alphabet = u"0123456789012345670101....xXafAFg +-\t:\u0661\uff11\u00a0"sv;
    static const char16_t *const prefixes[] = {u"", u"", u"0", u"0x", u"0X", u"+", u" ", u"-", u"00"};
    for (long n = 0; n < count; ++n) {
        QString word;
        if (n % 2) { // loose characters
            for (int i = below(16); i > 0; --i)
                word += QChar(alphabet[below(int(alphabet.size()))]);
        } else { // parts that look like numbers, with a random flaw now and then
            for (int part = below(6); part >= 0; --part) {
                word += QString::fromUtf16(prefixes[below(std::size(prefixes))]);
                const int digits = below(4) ? 1 + below(3) : 1 + below(12);
                for (int i = 0; i < digits; ++i)
                    word += QChar(alphabet[below(below(3) ? 8 : 20)]);
                if (part > 0)
                    word += QLatin1Char('.');
            }
            if (below(4) == 0)
                word.insert(below(word.size() + 1), QChar(alphabet[below(int(alphabet.size()))]));
        }
        compare(word);
    }
    std::printf("seed %llu: %ld random words, QHostAddress accepted %d; %d mismatches in all\n",
                seed, count, accepted, mismatches);
    return mismatches == 0 ? 0 : 1;
}
