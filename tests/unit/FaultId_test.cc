// SPDX-License-Identifier: BSD-2-Clause
// The host's byte order macros come behind the class here; nfstream_test.cc has them before it.
#include "Misc/FaultId.h"
#include "Misc/nfstream.h"
#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <functional>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/ZELstream.h"
#include "Misc/buffer.h"
#include "Misc/proginfo.h"
#include "tests/support/failing_memory.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// The writer of a 32-bit host in network order, byte by byte.
std::string BE16(unsigned n) { return {static_cast<char>(n >> 8), static_cast<char>(n)}; }

std::string BE32(uint32_t n) { return BE16(n >> 16) + BE16(n & 0xFFFF); }

std::string Wire(const std::string& text) { return BE16(static_cast<unsigned>(text.size())) + text; }

std::string Wire(int32_t id, const std::string& node, const std::string& text)
{
    return BE32(static_cast<uint32_t>(id)) + Wire(node) + Wire(text);
}

// The dump of a list with these texts.
std::string ListDump(const std::vector<std::string>& texts, int cursor = 0)
{
    std::string dump =
        "FaultIdList: Quantity = " + std::to_string(texts.size()) + "; CurrIndex = " + std::to_string(cursor) + "\n";
    for (const std::string& text : texts)
        dump += text + "\n";
    return dump;
}

std::string ExpectedReport(int type, int error, const std::string& description)
{
    return WarningReport("FaultId", ErrorReporter::GetErrorType(static_cast<short>(type)), error, description);
}

void Fill(FaultIdList& list, int n)
{
    for (int i = 1; i <= n; i++)
        list.AddFaultId(FaultId(i, "n"));
}

// FaultId

// First, since a process asks for the name of its host only once.
TEST(FaultId, TheHostBetaGivesBeta)
{
    if (!InSandbox())
        GTEST_SKIP() << "would rename the host";
    const ChildResult child = RunInChild([] {
        ChildNeeds(unshare(CLONE_NEWUTS) == 0 && sethostname("beta", 4) == 0);
        std::cout << static_cast<const char*>(FaultId(7, "")) << std::endl;
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no host name of its own";
    EXPECT_EQ(child.out, "beta/00000007\n");
}

TEST(FaultId, StartsEmpty)
{
    FaultId f;
    EXPECT_EQ(f.GetId(), 0);
    EXPECT_EQ(Text(f.GetNodeName()), "");
    EXPECT_EQ(Text(f), "");
    EXPECT_EQ(Dump(f), "FaultId =  0\nNodeName = \n");
}

TEST(FaultId, TextIsNodeAndNumberInEightDigits)
{
    EXPECT_EQ(Text(FaultId(42, "alpha")), "alpha/00000042");
    EXPECT_EQ(Text(FaultId(12345678, "a")), "a/12345678");
    EXPECT_EQ(Text(FaultId(123456789, "alpha")), "alpha/123456789") << "nine digits are not cut";
    EXPECT_EQ(Text(FaultId(-7, "a")), "a/-0000007");
    EXPECT_EQ(Text(FaultId(INT_MIN, "a")), "a/-2147483648");
    EXPECT_EQ(Text(FaultId(LONG_MIN, "a")), "a/" + std::to_string(LONG_MIN));
    EXPECT_EQ(Text(FaultId(LONG_MAX, "a")), "a/" + std::to_string(LONG_MAX));
    const FaultId f(42, "alpha");
    EXPECT_EQ(f.GetId(), 42);
    EXPECT_EQ(Text(f.GetNodeName()), "alpha");
    EXPECT_EQ(f.strlen(), 14u);
    EXPECT_EQ(Dump(f), "FaultId =  42\nNodeName = alpha\n");
    const std::string longName(100000, 'x');
    EXPECT_EQ(Text(FaultId(1, longName.c_str())), longName + "/00000001");
}

TEST(FaultId, AnEmptyNodeNameIsThisHost)
{
    const std::string host = ProgInfo::GetNodeName();
    ASSERT_NE(host, "");
    for (const FaultId& f : {FaultId(7, ""), FaultId(7), FaultId(7, nullptr)}) {
        EXPECT_EQ(Text(f), host + "/00000007");
        EXPECT_EQ(Text(f.GetNodeName()), host);
    }
}

TEST(FaultId, ParsesAWrittenIdentifier)
{
    const struct {
        const char* written;
        const char* node;
        long id;
        const char* text;
    } cases[] = {
        {"alpha/42", "alpha", 42, "alpha/00000042"},
        {"alpha:42", "alpha", 42, "alpha/00000042"},
        {"alpha/00000042", "alpha", 42, "alpha/00000042"},
        {"alpha", "alpha", 0, "alpha/00000000"},
        {"", "", 0, "/00000000"},
        {"/42", "", 42, "/00000042"},
        {":42", "", 42, "/00000042"},
        {"alpha/", "alpha", 0, "alpha/00000000"},
        {"alpha/x", "alpha", 0, "alpha/00000000"},
        {"alpha/4x2", "alpha", 4, "alpha/00000004"},
        {"alpha/ 42", "alpha", 42, "alpha/00000042"},
        {"alpha/-42", "alpha", -42, "alpha/-0000042"},
        {"alpha/1/2", "alpha", 1, "alpha/00000001"},
        {"a:1/2", "a:1", 2, "a:1/00000002"},
        {"a:1:2", "a", 1, "a/00000001"},
        {"42", "42", 0, "42/00000000"},
        {nullptr, "", 0, "/00000000"},
    };
    for (const auto& c : cases) {
        FaultId f(5, "before");
        f.ConstFromStr(c.written);
        EXPECT_EQ(Text(f.GetNodeName()), c.node);
        EXPECT_EQ(f.GetId(), c.id);
        EXPECT_EQ(Text(f), c.text);
        FaultId g;
        g = c.written;
        EXPECT_TRUE(g == f) << c.text;
    }
}

TEST(FaultId, ParsesItsOwnTexts)
{
    FaultId f(42, "al:7");
    f = static_cast<const char*>(f);
    EXPECT_EQ(Text(f), "al:7/00000042");
    f = static_cast<const char*>(f.GetNodeName());
    EXPECT_EQ(Text(f), "al/00000007");
    EXPECT_EQ(f.GetId(), 7);
    f.concatNodenameId(3, f);
    EXPECT_EQ(Text(f), "al/00000007/00000003");
}

TEST(FaultId, ConcatSetsTheTextOnly)
{
    FaultId f(42, "alpha");
    f.concatNodenameId(7, "beta");
    EXPECT_EQ(Text(f), "beta/00000007");
    EXPECT_EQ(f.GetId(), 42);
    EXPECT_EQ(Text(f.GetNodeName()), "alpha");
    f.concatNodenameId(7, "");
    EXPECT_EQ(Text(f), "/00000007") << "the host's name is not filled in";
    f.concatNodenameId(7, nullptr);
    EXPECT_EQ(Text(f), "/00000007");
}

TEST(FaultId, CopiesAllThreeParts)
{
    FaultId f(42, "alpha");
    f.concatNodenameId(7, "beta");
    const FaultId copy(f);
    FaultId assigned(1, "x");
    assigned = f;
    for (const FaultId& g : {copy, assigned}) {
        EXPECT_EQ(Text(g), "beta/00000007");
        EXPECT_EQ(g.GetId(), 42);
        EXPECT_EQ(Text(g.GetNodeName()), "alpha");
    }
    FaultId& self = f;
    f = self;
    EXPECT_TRUE(f == copy);
    f = "gamma/1";
    EXPECT_EQ(Text(copy), "beta/00000007") << "a copy does not change with its original";
}

TEST(FaultId, EqualityNeedsAllThreeParts)
{
    const FaultId f(42, "alpha");
    EXPECT_TRUE(f == FaultId(42, "alpha"));
    EXPECT_FALSE(f != FaultId(42, "alpha"));
    EXPECT_FALSE(f == FaultId(43, "alpha"));
    EXPECT_FALSE(f == FaultId(42, "alphb"));
    FaultId otherNumber(43, "alpha");
    otherNumber.concatNodenameId(42, "alpha");
    EXPECT_FALSE(f == otherNumber) << "equal text, other number";
    EXPECT_TRUE(f != otherNumber);
    FaultId otherNode(42, "beta");
    otherNode.concatNodenameId(42, "alpha");
    EXPECT_FALSE(f == otherNode) << "equal text, other node";
    FaultId otherText(42, "alpha");
    otherText.concatNodenameId(42, "beta");
    EXPECT_FALSE(f == otherText) << "equal parts, other text";
    EXPECT_FALSE(FaultId() == FaultId(0, "a"));
    EXPECT_TRUE(FaultId() == FaultId());
}

TEST(FaultId, ComparesWithTextsAsAString)
{
    const FaultId f(42, "alpha");
    const std::string text = "alpha/00000042";
    EXPECT_TRUE(f == text.c_str());
    EXPECT_FALSE(f != text.c_str());
    EXPECT_TRUE(f != "alpha/42");
    EXPECT_TRUE(f == CString("alpha/00000042"));
    EXPECT_TRUE(CString("alpha/00000042") == f);
}

TEST(FaultId, WritesNumberNodeAndText)
{
    const FaultId f(42, "beta");
    Buffer b;
    {
        ZELostream s(b);
        s << f;
    }
    EXPECT_EQ(std::string(static_cast<const char*>(b.operator const void*()), b.Size()), "42|4|beta13|beta/00000042");
    std::ostringstream bytes;
    onfstream s(bytes);
    s << FaultId(-2, "beta");
    EXPECT_EQ(bytes.str(), Wire(-2, "beta", "beta/-0000002"));
    EXPECT_EQ(bytes.str(), Bytes("\xFF\xFF\xFF\xFE\0\4beta\0\x0D"
                                 "beta/-0000002"));
}

TEST(FaultId, ReadsWhatItWroteThroughItsBaseToo)
{
    FaultId f(-42, "beta");
    const CString& asString = f;
    Buffer b;
    {
        ZELostream s(b);
        asString.ObjectWrite(s) << asString;
    }
    ZEListream s(b);
    FaultId first, second(9, "x");
    CString& target = first;
    target.ObjectRead(s) >> second;
    EXPECT_TRUE(first == f);
    EXPECT_TRUE(second == f);
    EXPECT_EQ(s.tellg(), b.Size());
}

TEST(FaultId, ReadsInconsistentPartsAsTheyCome)
{
    std::istringstream source(Wire(7, "beta", "alpha/00000042"));
    infstream s(source);
    FaultId f;
    s >> f;
    EXPECT_EQ(f.GetId(), 7);
    EXPECT_EQ(Text(f.GetNodeName()), "beta");
    EXPECT_EQ(Text(f), "alpha/00000042");
    EXPECT_FALSE(f == FaultId(42, "alpha"));
}

TEST(FaultId, DumpsAsAStringThroughItsBase)
{
    const FaultId f(42, "alpha");
    std::ostringstream os, expected;
    static_cast<const CString&>(f).dumpOn(os);
    CString("alpha/00000042").dumpOn(expected);
    EXPECT_EQ(os.str(), expected.str());
}

class MarkedFaultId : public FaultId {
public:
    using FaultId::FaultId;
    void dumpOn(std::ostream& os) const override { os << "marked " << GetId(); }
};

TEST(FaultId, TheDumpIsVirtual)
{
    EXPECT_EQ(Dump(static_cast<const FaultId&>(MarkedFaultId(42, "alpha"))), "marked 42");
}

TEST(FaultId, PrintsAsItsText)
{
    std::ostringstream os;
    os << FaultId(42, "alpha");
    EXPECT_EQ(os.str(), "alpha/00000042");
}

TEST(Fault, GivesTheIdentifierOfItsHeader)
{
    Fault fault;
    EXPECT_TRUE(fault.GetFaultId() == FaultId());
    fault.hdr.myId = FaultId(42, "alpha");
    fault.hdr.groupid = FaultId(41, "alpha");
    const Fault& constant = fault;
    EXPECT_EQ(&constant.GetFaultId(), &fault.hdr.myId);
    EXPECT_EQ(Text(constant.GetFaultId()), "alpha/00000042");
}

TEST(FaultIdSafeArray, OwnsItsElementsAndNamesThemInItsDump)
{
    FaultIdSafeArray a;
    EXPECT_EQ(a.pf(), 0);
    a.AddItem(new FaultId(1, "n"));
    a.AddItem(new FaultId(2, "n"));
    std::ostringstream os;
    a.print(os);
    const std::string dump = Replaced(os.str(), "0x[0-9a-f]+", "P");
    EXPECT_EQ(dump, "SafeArray(FaultId)***************\n********** Capacity =32\n********** Quantity =2\n"
                    "********** This SafeArray is purgable.\n****SafeArray(FaultId)[0] address = P\n"
                    "****SafeArray(FaultId)[1] address = P\n");
    FaultIdSafeArrayIter iter(a);
    EXPECT_EQ(Text(*iter()), "n/00000001");
    ++iter;
    EXPECT_EQ(Text(*iter()), "n/00000002");
    ++iter;
    EXPECT_EQ(iter(), nullptr);
    const FaultIdSafeArray copy(a);
    EXPECT_NE(copy[0], a[0]);
    EXPECT_TRUE(*copy[1] == *a[1]);
}

// FaultIdList

TEST(FaultIdList, StartsEmptyAndDoesNotReadItsFile)
{
    TemporaryDirectory directory;
    const std::string path = directory.File("list");
    WriteFile(path, BE16(1) + Wire(7, "beta", "beta/00000007"));
    FaultIdList list(path.c_str());
    EXPECT_EQ(list.MyQuantity(), 0);
    EXPECT_EQ(list.GetNext(), nullptr);
    EXPECT_EQ(Dump(list), ListDump({}));
    list.DeleteOne(FaultId(1, "n"));
    EXPECT_EQ(list.MyQuantity(), 0);
}

TEST(FaultIdList, AddingTwiceLeavesOne)
{
    FaultIdList list("");
    const FaultId f(7, "beta");
    list.AddFaultId(f);
    list.AddFaultId(f);
    list.AddFaultId(FaultId(7, "beta"));
    EXPECT_EQ(Dump(list), ListDump({"beta/00000007"}));
    list.AddFaultId(FaultId(7, "alpha"));
    list.AddFaultId(FaultId(8, "beta"));
    EXPECT_EQ(Dump(list), ListDump({"beta/00000007", "alpha/00000007", "beta/00000008"}));
    const FaultId* own = list.GetNext();
    ASSERT_NE(own, nullptr);
    EXPECT_NE(own, &f) << "the list has a copy";
    list.AddFaultId(*own);
    EXPECT_EQ(list.MyQuantity(), 3);
    FaultId inconsistent(9, "beta");
    inconsistent.concatNodenameId(7, "beta");
    list.AddFaultId(inconsistent);
    EXPECT_EQ(list.MyQuantity(), 4) << "an equal text is not enough";
}

TEST(FaultIdList, WalksOnceAndGoesOnWithWhatIsAdded)
{
    FaultIdList list("");
    Fill(list, 2);
    EXPECT_EQ(Text(*list.GetNext()), "n/00000001");
    EXPECT_EQ(Text(*list.GetNext()), "n/00000002");
    EXPECT_EQ(list.GetNext(), nullptr);
    EXPECT_EQ(list.GetNext(), nullptr);
    EXPECT_EQ(Dump(list), ListDump({"n/00000001", "n/00000002"}, 2));
    list.AddFaultId(FaultId(3, "n"));
    EXPECT_EQ(Text(*list.GetNext()), "n/00000003");
}

TEST(FaultIdList, DeletingBeforeTheCursorKeepsTheNextElement)
{
    FaultIdList list("");
    Fill(list, 5);
    for (int i = 0; i < 3; i++)
        list.GetNext();
    list.DeleteOne(FaultId(1, "n"));
    EXPECT_EQ(Dump(list), ListDump({"n/00000002", "n/00000003", "n/00000004", "n/00000005"}, 2));
    EXPECT_EQ(Text(*list.GetNext()), "n/00000004");
}

TEST(FaultIdList, DeletingAtOrBehindTheCursorLeavesIt)
{
    FaultIdList list("");
    Fill(list, 5);
    list.GetNext();
    list.DeleteOne(FaultId(2, "n"));
    EXPECT_EQ(Dump(list), ListDump({"n/00000001", "n/00000003", "n/00000004", "n/00000005"}, 1));
    list.DeleteOne(FaultId(5, "n"));
    EXPECT_EQ(Dump(list), ListDump({"n/00000001", "n/00000003", "n/00000004"}, 1));
    list.DeleteOne(FaultId(5, "n"));
    EXPECT_EQ(list.MyQuantity(), 3) << "none is equal";
    list.DeleteOne(*list.GetNext());
    EXPECT_EQ(Dump(list), ListDump({"n/00000001", "n/00000004"}, 1)) << "by its own element";
}

TEST(FaultIdList, WritesQuantityAndElementsIntoABuffer)
{
    FaultIdList list("");
    list.AddFaultId(FaultId(7, "beta"));
    list.AddFaultId(FaultId(-8, "a"));
    Buffer b;
    {
        ZELostream s(b);
        list.printOn(s);
    }
    EXPECT_EQ(std::string(static_cast<const char*>(b.operator const void*()), b.Size()),
              "2|7|4|beta13|beta/00000007-8|1|a10|a/-0000008");
    FaultIdList back("");
    ZEListream s(b);
    back.scanFrom(s);
    EXPECT_EQ(Dump(back), ListDump({"beta/00000007", "a/-0000008"}));
    EXPECT_EQ(s.good(), 1);
}

TEST(FaultIdList, ScanReplacesTheElementsAndKeepsTheCursor)
{
    FaultIdList list("");
    Fill(list, 3);
    list.GetNext();
    list.GetNext();
    const std::string one = Wire(7, "b", "b/00000007"), two = Wire(8, "b", "b/00000008");
    std::istringstream source(BE16(5) + one + two + one + two + Wire(9, "b", "b/00000009"));
    infstream s(source);
    list.scanFrom(s);
    EXPECT_EQ(Dump(list), ListDump({"b/00000007", "b/00000008", "b/00000009"}, 2)) << "duplicates collapse";
    EXPECT_EQ(Text(*list.GetNext()), "b/00000009");
    std::istringstream shorter(BE16(1) + one);
    infstream t(shorter);
    list.scanFrom(t);
    EXPECT_EQ(Dump(list), ListDump({"b/00000007"}, 3));
    EXPECT_EQ(list.GetNext(), nullptr) << "the cursor is beyond the end";
}

TEST(FaultIdList, ANegativeOrMissingQuantityEmptiesIt)
{
    for (const std::string& bytes : {BE16(0xFFFF), BE16(0x8000), BE16(0), std::string()}) {
        FaultIdList list("");
        Fill(list, 3);
        std::istringstream source(bytes + (bytes.empty() ? "" : Wire(7, "b", "b/00000007")));
        infstream s(source);
        list.scanFrom(s);
        EXPECT_EQ(Dump(list), ListDump({}));
    }
}

// Whatever is cut off, and in every encoding, only whole elements are added.
TEST(FaultIdList, AddsNoElementThatItCouldNotReadWhole)
{
    const FaultId elements[] = {FaultId(0, "b"), FaultId(21, "bb"), FaultId(12345678, "0|1"), FaultId()};
    FaultIdList list("");
    for (const FaultId& f : elements)
        list.AddFaultId(f);
    std::ostringstream binary, text;
    std::vector<std::size_t> binaryEnds, textEnds;
    {
        onfstream s(binary);
        ZELostream t(text);
        list.printOn(s);
        list.printOn(t);
    }
    std::size_t binaryEnd = 2, textEnd = 2;
    for (const FaultId& f : elements) {
        std::ostringstream b, t;
        onfstream bs(b);
        ZELostream ts(t);
        bs << f;
        ts << f;
        binaryEnds.push_back(binaryEnd += b.str().size());
        textEnds.push_back(textEnd += t.str().size());
    }
    ASSERT_EQ(binaryEnds.back(), binary.str().size());
    ASSERT_EQ(textEnds.back(), text.str().size());

    const auto whole = [](const std::vector<std::size_t>& ends, std::size_t n) {
        short count = 0;
        while (static_cast<std::size_t>(count) < ends.size() && ends[static_cast<std::size_t>(count)] <= n)
            count++;
        return count;
    };
    const std::string said = CaptureStdout([&] {
        for (std::size_t n = 0; n <= binary.str().size(); n++) {
            std::istringstream source(binary.str().substr(0, n));
            infstream s(source);
            FaultIdList back("");
            back.scanFrom(s);
            EXPECT_EQ(back.MyQuantity(), whole(binaryEnds, n)) << "binary, " << n << " bytes";
            EXPECT_EQ(s.good() != 0, n == binary.str().size());
        }
        for (std::size_t n = 0; n <= text.str().size(); n++) {
            const std::string cut = text.str().substr(0, n);
            std::istringstream source(cut);
            ZEListream stream(source);
            FaultIdList fromStream("");
            fromStream.scanFrom(stream);
            EXPECT_EQ(fromStream.MyQuantity(), whole(textEnds, n)) << "text, " << n << " bytes";

            Buffer b;
            b.Append(cut.data(), static_cast<unsigned>(cut.size()));
            ZEListream buffer(b);
            FaultIdList fromBuffer("");
            fromBuffer.scanFrom(buffer);
            EXPECT_EQ(fromBuffer.MyQuantity(), whole(textEnds, n)) << "buffer, " << n << " bytes";
            // Without a quantity there is nothing to miss.
            EXPECT_EQ(buffer.good() != 0, n == 0 || n == text.str().size()) << n;
        }
    });
}

TEST(FaultIdList, AddsNoElementWhoseNumbersAreNotWhole)
{
    for (const std::string text : {"1|7|1 1|a", "1|7|x1|a", "1|7 1|a1|a", "1|x1|a1|a", "1|7|1|ax", "1|7|1|a1"}) {
        Buffer b;
        b.Append(text.data(), static_cast<unsigned>(text.size()));
        ZEListream s(b);
        FaultIdList list("");
        const std::string said = CaptureStdout([&] { list.scanFrom(s); });
        EXPECT_EQ(list.MyQuantity(), 0) << text;
        EXPECT_EQ(s.good(), 0) << text;
    }
}

// A stream that counts what is asked of it.
class CountingStream : public infstream {
public:
    using infstream::infstream;
    int read(char* p, unsigned n) override
    {
        reads++;
        return infstream::read(p, n);
    }
    int reads = 0;
};

TEST(FaultIdList, AHostileQuantityCostsNoMoreThanTheFileHolds)
{
    std::istringstream source(BE16(32767) + Wire(7, "b", "b/00000007"));
    CountingStream s(source);
    FaultIdList list("");
    list.scanFrom(s);
    EXPECT_EQ(Dump(list), ListDump({"b/00000007"}));
    EXPECT_LE(s.reads, 1 + 5 + 5);

    Buffer b;
    b.Append("32767|", 6);
    ZEListream empty(b);
    list.scanFrom(empty);
    EXPECT_EQ(Dump(list), ListDump({}));
    EXPECT_EQ(empty.good(), 0);
}

TEST(FaultIdList, LoadAndSaveWithoutAFileNameDoNothing)
{
    for (const char* name : {"", static_cast<const char*>(nullptr)}) {
        FaultIdList list(name);
        Fill(list, 2);
        const int count = ErrorReporter::GetErrorCount();
        EXPECT_EQ(CaptureStderr([&] {
                      list.Save();
                      list.Load();
                  }),
                  "");
        EXPECT_EQ(ErrorReporter::GetErrorCount(), count);
        EXPECT_EQ(list.MyQuantity(), 2);
    }
}

TEST(FaultIdList, ReadsAndWritesTheFilesOfA32BitHost)
{
    TemporaryDirectory directory;
    const std::string path = directory.File("list");
    const std::string bytes = BE16(3) + Wire(7, "beta", "beta/00000007") + Wire(-2, "", "/-0000002") +
                              Wire(INT_MAX, "gamma", "gamma/2147483647");
    WriteFile(path, bytes);
    FaultIdList list(path.c_str());
    const int descriptors = OpenDescriptors();
    EXPECT_EQ(CaptureStderr([&] { list.Load(); }), "");
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(Dump(list), ListDump({"beta/00000007", "/-0000002", "gamma/2147483647"}));
    EXPECT_EQ(list.GetNext()->GetId(), 7);
    const FaultId* negative = list.GetNext();
    EXPECT_EQ(negative->GetId(), -2);
    EXPECT_EQ(Text(negative->GetNodeName()), "");
    EXPECT_EQ(list.GetNext()->GetId(), INT_MAX);

    WriteFile(path, std::string(1000, 'x')); // a longer file is truncated
    EXPECT_EQ(CaptureStderr([&] { list.Save(); }), "");
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(ReadFile(path), bytes);
}

TEST(FaultIdList, ANumberBeyond32BitsIsCutInTheFile)
{
    if (sizeof(long) == 4)
        GTEST_SKIP() << "a long has no more bits here";
    TemporaryDirectory directory;
    const std::string path = directory.File("list");
    FaultIdList list(path.c_str());
    const FaultId wide(static_cast<long>(0x100000007), "b");
    list.AddFaultId(wide);
    list.Save();
    EXPECT_EQ(ReadFile(path), BE16(1) + Wire(7, "b", "b/4294967303"));
    list.Load();
    const FaultId* back = list.GetNext();
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->GetId(), 7);
    EXPECT_FALSE(*back == wide);
}

TEST(FaultIdList, AFileThatDoesNotOpenLeavesTheList)
{
    const char* path = "/nosuch/list";
    FaultIdList list(path);
    Fill(list, 2);
    EXPECT_EQ(ReportsInFull([&] { list.Load(); }), ExpectedReport(ErrorReporter::OPENING_FILE, ENOENT, path));
    EXPECT_EQ(list.MyQuantity(), 2);
    EXPECT_EQ(ReportsInFull([&] { list.Save(); }), ExpectedReport(ErrorReporter::OPENING_FILE, ENOENT, path));
    EXPECT_EQ(list.MyQuantity(), 2);
}

TEST(FaultIdList, ATruncatedFileGivesWhatItHoldsAndAReport)
{
    TemporaryDirectory directory;
    const std::string path = directory.File("list");
    const std::string one = Wire(7, "beta", "beta/00000007"), two = Wire(8, "beta", "beta/00000008");
    const std::string shortRead = "Error: short read in Cstring scanFrom. read: 5 expected: 13\n";
    const struct {
        std::string bytes;
        std::vector<std::string> texts;
        std::string said;
    } cases[] = {
        {"", {}, ""},
        {Bytes("\x01"), {}, ""}, // half a quantity is 256
        {BE16(1), {}, ""},
        {BE16(32767) + one, {"beta/00000007"}, ""},
        {BE16(2) + one + BE16(0), {"beta/00000007"}, ""},
        {BE16(2) + one + two.substr(0, two.size() - 8), {"beta/00000007"}, shortRead},
        {BE16(2) + one + BE32(8) + "\xFF",
         {"beta/00000007"},
         "Error: short read in Cstring scanFrom. read: 0 expected: 65280\n"},
    };
    for (const auto& c : cases) {
        WriteFile(path, c.bytes);
        FaultIdList list(path.c_str());
        Fill(list, 3);
        const int descriptors = OpenDescriptors();
        errno = EDOM; // left behind by another call
        std::string report;
        const std::string said = CaptureStdout([&] { report = ReportsInFull([&] { list.Load(); }); });
        EXPECT_EQ(report, ExpectedReport(ErrorReporter::READING_FROM_FILE, 0, path));
        EXPECT_EQ(said, c.said);
        EXPECT_EQ(Dump(list), ListDump(c.texts));
        EXPECT_EQ(OpenDescriptors(), descriptors);
    }
}

TEST(FaultIdList, BytesBehindTheLastElementAreIgnored)
{
    TemporaryDirectory directory;
    const std::string path = directory.File("list");
    WriteFile(path, BE16(1) + Wire(7, "b", "b/00000007") + "more");
    FaultIdList list(path.c_str());
    EXPECT_EQ(CaptureStderr([&] { list.Load(); }), "");
    EXPECT_EQ(Dump(list), ListDump({"b/00000007"}));
}

TEST(FaultIdList, ADirectoryCannotBeReadOrWritten)
{
    TemporaryDirectory directory;
    FaultIdList list(directory.Path().c_str());
    EXPECT_EQ(ReportsInFull([&] { list.Load(); }),
              ExpectedReport(ErrorReporter::READING_FROM_FILE, EISDIR, directory.Path()));
    EXPECT_EQ(ReportsInFull([&] { list.Save(); }),
              ExpectedReport(ErrorReporter::OPENING_FILE, EISDIR, directory.Path()));
}

TEST(FaultIdList, AFullDiskIsReported)
{
    FaultIdList list("/dev/full");
    Fill(list, 2);
    const int descriptors = OpenDescriptors();
    EXPECT_EQ(ReportsInFull([&] { list.Save(); }), ExpectedReport(ErrorReporter::WRITING_TO_FILE, ENOSPC, "/dev/full"));
    Fill(list, 2000); // more than a stream's buffer
    EXPECT_EQ(ReportsInFull([&] { list.Save(); }), ExpectedReport(ErrorReporter::WRITING_TO_FILE, ENOSPC, "/dev/full"));
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(list.MyQuantity(), 2000);
}

TEST(FaultIdList, ErrorsOfTheDiskAreReportedAsSuch)
{
    TemporaryDirectory directory;
    const std::string path = directory.File("list");
    FaultIdList list(path.c_str());
    Fill(list, 2);
    list.Save();
    const std::vector<std::tuple<long, int, short, std::function<void()>>> cases = {
        {SYS_read, EIO, ErrorReporter::READING_FROM_FILE, [&] { list.Load(); }},
        {SYS_close, EDQUOT, ErrorReporter::WRITING_TO_FILE, [&] { list.Save(); }}};
    for (const auto& [call, error, type, operation] : cases) {
        const ChildResult child = RunInChild([&, call = call, error = error, operation = operation] {
            MakeCallsFail({call}, error);
            operation();
        });
        if (child.exitCode == NotPossibleHere)
            GTEST_SKIP() << "no system call filters here";
        EXPECT_EQ(WithoutVariables(child.err), ExpectedReport(type, error, path));
    }
}

// As many as a quantity can say.
TEST(FaultIdList, AFullListRefusesOneMoreWithAReport)
{
    TemporaryDirectory directory;
    const std::string path = directory.File("list");
    std::string bytes = BE16(32767);
    for (int i = 0; i < 32767; i++)
        bytes += Wire(i, "", "");
    WriteFile(path, bytes);
    FaultIdList list(path.c_str());
    list.Load();
    ASSERT_EQ(list.MyQuantity(), 32767);
    EXPECT_EQ(CaptureStderr([&] { list.AddFaultId(*list.GetNext()); }), "") << "a duplicate is no loss";
    EXPECT_EQ(ReportsInFull([&] { list.AddFaultId(FaultId(1, "beta")); }),
              ExpectedReport(ErrorReporter::TOO_MANY_FAULTS, 0, "beta/00000001"));
    EXPECT_EQ(list.MyQuantity(), 32767);
    list.Save();
    EXPECT_EQ(ReadFile(path) == bytes, true);
    int rest = 0;
    while (list.GetNext() != nullptr)
        rest++;
    EXPECT_EQ(rest, 32766);
    EXPECT_EQ(list.GetNext(), nullptr);
    list.DeleteOne(FaultId());
    list.AddFaultId(FaultId(1, "beta"));
    EXPECT_EQ(Text(*list.GetNext()), "beta/00000001");
}

// A list of many is searched in another way than one of few.
TEST(FaultIdList, AListOfManyIsTheSetThatAListOfFewIs)
{
    std::mt19937 random(7);
    FaultIdList list("");
    std::vector<FaultId> model;
    for (int i = 0; i < 20000; i++) {
        const bool isGrowing = i / 2500 % 2 == 0;
        const FaultId f(static_cast<long>(random() % 300) - 150, ("n" + std::to_string(random() % 5)).c_str());
        const auto at = std::find(model.begin(), model.end(), f);
        if (random() % 4 != 0 ? isGrowing : !isGrowing) {
            list.AddFaultId(f);
            if (at == model.end())
                model.push_back(f);
        } else {
            list.DeleteOne(f);
            if (at != model.end())
                model.erase(at);
        }
        ASSERT_EQ(list.MyQuantity(), static_cast<short>(model.size())) << i;
    }
    ASSERT_GT(model.size(), 32u);
    for (const FaultId& f : model) {
        const FaultId* next = list.GetNext();
        ASSERT_NE(next, nullptr);
        EXPECT_TRUE(*next == f);
    }
}

TEST(FaultIdList, AListOfManySeesWhatIsWrittenToItsTexts)
{
    FaultIdList list("");
    const FaultId shared(200, "n");
    list.AddFaultId(shared);
    Fill(list, 100);
    shared[0] = 'm'; // which changes every string that shares the text
    list.AddFaultId(shared);
    EXPECT_EQ(list.MyQuantity(), 101);
    list.AddFaultId(FaultId(200, "n"));
    EXPECT_EQ(list.MyQuantity(), 102);
    shared[0] = 'n'; // now there are two of them
    EXPECT_EQ(list.GetNext()->GetId(), 200);
    list.DeleteOne(FaultId(200, "n"));
    EXPECT_EQ(list.MyQuantity(), 101);
    EXPECT_EQ(list.GetNext()->GetId(), 1) << "the first of them has gone, which was before the cursor";
    list.DeleteOne(FaultId(200, "n"));
    EXPECT_EQ(list.MyQuantity(), 100);
    list.DeleteOne(FaultId(200, "n"));
    EXPECT_EQ(list.MyQuantity(), 100);
}

// Reads `n` elements by a stream over a Buffer.
void Scan(FaultIdList& list, int n)
{
    FaultIdList source("");
    Fill(source, n);
    Buffer b;
    {
        ZELostream out(b);
        source.printOn(out);
    }
    ZEListream in(b);
    list.scanFrom(in);
}

TEST(FaultIdList, AListOfManyNeedsNoMemoryToBeSearched)
{
    FaultIdList source("");
    Fill(source, 100);
    std::vector<FaultId> ids; // whose texts are made while there is memory
    while (const FaultId* id = source.GetNext())
        ids.push_back(*id);
    FaultIdList list("");
    const auto addAll = [&] {
        for (const FaultId& id : ids)
            list.AddFaultId(id);
    };
    Scan(list, 200); // the array keeps its slots
    Scan(list, 60);
    {
        const MemoryFailure failure = MemoryFailure::Of(NewArray);
        list.AddFaultId(ids[59]);
        EXPECT_TRUE(failure.HasHappened());
        EXPECT_EQ(list.MyQuantity(), 60);
        list.DeleteOne(ids[0]);
        EXPECT_EQ(list.MyQuantity(), 59);
    }
    list.AddFaultId(ids[59]);
    {
        const MemoryFailure failure = MemoryFailure::Of(NewArray);
        addAll();
        EXPECT_TRUE(failure.HasHappened());
    }
    EXPECT_EQ(list.MyQuantity(), 100);
    addAll();
    EXPECT_EQ(list.MyQuantity(), 100);
    EXPECT_EQ(list.GetNext()->GetId(), 2);
}

TEST(FaultIdList, WithoutMemoryForItsArrayTheQuantityIsMinusOne)
{
    TemporaryDirectory directory;
    const std::string path = directory.File("list");
    const std::string report = ExpectedReport(ErrorReporter::OUT_OF_MEMORY, ENOMEM, "orvlaf: out of free store");
    std::unique_ptr<FaultIdList> list;
    {
        const MemoryFailure failure = MemoryFailure::OfSize(sizeof(FaultIdSafeArray), NewObject);
        EXPECT_EQ(ReportsInFull([&] { list = std::make_unique<FaultIdList>(path.c_str()); }), report);
        EXPECT_EQ(list->MyQuantity(), -1);
        EXPECT_EQ(list->GetNext(), nullptr);
        list->DeleteOne(FaultId(1, "n"));
        EXPECT_EQ(Dump(*list), "");
        list->Save();
        EXPECT_EQ(ReadFile(path), BE16(0xFFFF));
        EXPECT_EQ(ReportsInFull([&] { list->AddFaultId(FaultId(1, "n")); }), report);
        EXPECT_EQ(list->MyQuantity(), -1);
    }
    list->AddFaultId(FaultId(1, "n"));
    EXPECT_EQ(Dump(*list), ListDump({"n/00000001"})) << "the array is made when there is memory again";
    list->Load();
    EXPECT_EQ(list->MyQuantity(), 0) << "what an absent array wrote reads as an empty list";
}

TEST(FaultIdList, WithoutMemoryForTheNameOfItsFileThatIsReported)
{
    const std::string report = ExpectedReport(ErrorReporter::OUT_OF_MEMORY, ENOMEM, "/nosuch/list");
    EXPECT_EQ(ReportsInFull([] {
                  const MemoryFailure failure = MemoryFailure::OfNext(NewObject | NewArray);
                  const FaultIdList list("/nosuch/list");
                  list.Save();
              }),
              report);
}

TEST(FaultIdList, WithoutMemoryForAnElementTheListStays)
{
    FaultIdList list("");
    Fill(list, 1);
    const FaultId f(2, "n");
    const MemoryFailure failure = MemoryFailure::OfSize(sizeof(FaultId), NewObject);
    EXPECT_EQ(ReportsInFull([&] { list.AddFaultId(f); }),
              ExpectedReport(ErrorReporter::OUT_OF_MEMORY, ENOMEM, "orvlaf: out of free store"));
    EXPECT_EQ(Dump(list), ListDump({"n/00000001"}));
}

// The class's names mean the class with the host's header behind it too.
TEST(ByteAccess, LivesBeforeTheFunctionsOfTheHost)
{
    const unsigned short port = 0x1F90;
    const bool isReversing = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__; // those of the class always are
    EXPECT_EQ(ByteAccess::htons(port), isReversing ? htons(port) : 0x901F);
    EXPECT_EQ(ByteAccess::ntohs(port), isReversing ? ntohs(port) : 0x901F);
    EXPECT_EQ(ByteAccess::htonl(1UL), isReversing ? htonl(1U) : 0x01000000U);
    EXPECT_EQ(ByteAccess::ntohl(1UL), isReversing ? ntohl(1U) : 0x01000000U);
}

} // namespace
