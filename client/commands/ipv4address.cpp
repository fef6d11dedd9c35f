// The IPv4 check of the IP settings commands: QHostAddress's reading of an
// IPv4 address, without linking the network library for it.
#include "client/commands/ipv4address.h"

#include <QByteArray>

#include <algorithm>

namespace {

// The value of an ASCII digit up to base 16; 16 for anything else.
int digitValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c |= 0x20; // 'A'..'F' to 'a'..'f'
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : 16;
}

} // namespace

bool isIpv4Address(const QString &word)
{
    const QString text = word.simplified();
    if (std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() >= 0x7f; }))
        return false;
    const QByteArray ascii = text.toLatin1();
    const char *p = ascii.constData(); // read up to the first NUL
    // The largest value of the last part, by the number of parts before it.
    static const quint64 lastPartLimit[] = {0xffffffff, 0xffffff, 0xffff, 0xff};
    for (int part = 0; part < 4; ++part) {
        while (*p == ' ')
            ++p;
        if (*p == '+')
            ++p;
        int base = 10;
        if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
            base = 16;
            p += 2;
        } else if (p[0] == '0') {
            base = 8;
        }
        const char *const digits = p;
        quint64 value = 0;
        for (; digitValue(*p) < base; ++p) {
            value = value * base + digitValue(*p);
            if (value > 0xffffffff)
                return false;
        }
        if (p == digits)
            return false;
        if (*p == '\0')
            return value <= lastPartLimit[part];
        if (*p != '.' || value > 0xff)
            return false;
        ++p;
    }
    return false; // a fifth part, or a dot after the fourth
}
