#ifndef KEP_COMMANDS_IPV4ADDRESS_H
#define KEP_COMMANDS_IPV4ADDRESS_H

#include <QString>

// Whether a word is an IPv4 address by the rules of Qt 5's QHostAddress,
// whose IPv4 acceptance this reproduces exactly (tests/ipv4_test.cpp holds
// the two side by side). The rules, beyond the plain dotted quad:
// - blanks of any kind around the word are ignored; inside it every run of
//   blanks counts as one space, which may only stand before a part;
// - one to four parts: each part but the last is one byte, the last fills
//   the bits that remain ("127.1" is 127.0.0.1, "10" is 0.0.0.10);
// - a part is decimal, octal after a leading 0, or hexadecimal after 0x or
//   0X, with an optional '+' (never '-');
// - only ASCII: any other character, a digit of another script included,
//   rejects the word; a NUL character ends the text that is read.
bool isIpv4Address(const QString &word);

#endif
