// The logger's fast paths against the slow, obvious ones: number formatting
// against printf, the plain-text check and the escaping against the XML
// parser.
#include "quillcore/logging/LogRecord.h"
#include "support/LogEscapeReference.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <random>
#include <string>

namespace {

using quill::logrecord::appendFixed3;
using quill::logrecord::escapeMessage;
using quill::logrecord::isPlainAttributeText;

std::string printed(double value, int width) {
    char text[64];
    std::snprintf(text, sizeof text, "%0*.3lf", width, value);
    return text;
}

TEST(LogRecord, MillisecondsAreRoundedExactlyAsPrintfDoes) {
    std::mt19937_64 random(7);
    std::vector<double> values = {0.0, 0.0005, 0.0015, 1.0625, 2.5, 59.9995, 59.99951, 817000000.0005, 1e15, 3e16};
    for (int i = 0; i < 200000; ++i) {
        const double base = std::uniform_real_distribution<double>(0, 1e9)(random);
        values.push_back(base);
        // Values within a few units in the last place of a half millisecond.
        const double half = (std::floor(base * 1000) + 0.5) / 1000;
        double near = half;
        for (int step = 0; step < 3; ++step) near = std::nextafter(near, 0.0);
        for (int step = 0; step < 6; ++step, near = std::nextafter(near, 2e9)) values.push_back(near);
        values.push_back(std::uniform_real_distribution<double>(0, 61)(random));
    }
    for (double value : values) {
        for (int width : {0, 6}) {
            std::string ours;
            appendFixed3(ours, value, width);
            ASSERT_EQ(ours, printed(value, width)) << std::hexfloat << value;
        }
    }
}

// Messages from a small alphabet that reaches every branch of the check:
// quotes, markup, references of every kind, controls, and UTF-8 both good and
// bad.
std::string randomMessage(std::mt19937_64& random) {
    static const std::vector<std::string> pieces = {
        "a", "Z", "0", " ", "\t", "\n", "\r", "\"", "'", "<", ">", "/", "=", "&", ";", "#", "x", "amp", "lt", "quot",
        "&amp;", "&#65;", "&#x41;", "&#0;", "&#xD800;", "&#x110000;", "&#xFFFE;", "&bogus;", "\x01", "\x7f",
        "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80", "\xc3", "\x80", "\xed\xa0\x80", "\xef\xbf\xbe",
        "\xef\xbf\xbd", "\xf4\x90\x80\x80", "\xc0\xaf", "\xe0\x80\xaf", " tms=\"", " foo=\"", " lvl=\"", "\"/>",
        "x=\"1\" ", "<!--", "]]>", "%", "%3C"};
    std::uniform_int_distribution<std::size_t> count(0, 12), pick(0, pieces.size() - 1);
    std::string message;
    for (std::size_t n = count(random); n > 0; --n) message += pieces[pick(random)];
    return message;
}

TEST(LogRecord, FastChecksAgreeWithTheParser) {
    std::mt19937_64 random(11);
    for (int i = 0; i < 100000; ++i) {
        const std::string message = randomMessage(random);
        if (isPlainAttributeText(message)) {
            ASSERT_TRUE(ferrocore::CXMLService::isWellFormed(quilltest::recordElement(message, 3))) << message;
        }
        for (unsigned level : {3u, 5u}) {
            std::string escaped;
            const std::string ours = escapeMessage(message, level, escaped) ? escaped : message;
            ASSERT_EQ(ours, quilltest::referenceEscape(message, level)) << message;
            ASSERT_TRUE(ferrocore::CXMLService::isWellFormed(quilltest::recordElement(ours, level))) << message;
        }
    }
}

}  // namespace
