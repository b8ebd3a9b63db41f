#include "NamedCondition.h"
#include "SegmentSupport.h"
#include "VDIClientInfo.h"

namespace {

using namespace segmenttest;

class SegmentTest : public testing::Test {
protected:
    const std::string name = uniqueName();
    const std::shared_ptr<SharedMemoryI> reader = plain();
    const std::shared_ptr<SharedMemoryI> writer = plain();
};

TEST_F(SegmentTest, AChunkHasTheDocumentedLayoutAndNoRestOfAnEarlierOne) {
    ASSERT_TRUE(reader->Open(name, 100));
    RawSegment raw(name);
    EXPECT_EQ(raw.size(), 148U);
    EXPECT_EQ(raw.bytes(0, 148), std::string(148, '\0'));
    for (std::size_t i = 48; i < 148; ++i) raw.put<char>(i, '!');
    ASSERT_TRUE(writer->Create(name, 100));
    ASSERT_TRUE(write(*writer, std::string(90, 'a')));
    EXPECT_EQ(raw.word64(24), 0);
    EXPECT_EQ(read(*reader), std::string(90, 'a'));
    EXPECT_EQ(raw.word64(24), 1);

    ASSERT_TRUE(write(*writer, "xyz"));
    const std::string expected(
        "\2\0\0\0\0\0\0\0"
        "\1\0\0\0\0\0\0\0"
        "\1\0\0\0\1\0\0\0\3\0\0\0\3\0\0\0xyz",
        35);
    EXPECT_EQ(raw.bytes(0, 148), std::string(16, '\0') + expected + std::string(97, '\0'));
}

TEST_F(SegmentTest, MessagesOfEveryLengthCross) {
    constexpr unsigned int kCapacity = 65536;
    ASSERT_TRUE(reader->Open(name, kCapacity) && writer->Create(name, kCapacity));
    for (const std::size_t length :
         {1U, kCapacity - 1, kCapacity, kCapacity + 1, 10 * kCapacity + 7, 32U << 20U}) {
        const std::string message = numberedMessage(1, 1, length).substr(0, length);
        auto written = std::async([&] { return write(*writer, message); });
        ASSERT_TRUE(read(*reader) == message) << length;
        EXPECT_TRUE(written.get());
    }
}

TEST_F(SegmentTest, ChunksOfALongMessageAreNumberedFromOne) {
    ASSERT_TRUE(reader->Open(name, 10) && writer->Create(name, 10));
    RawSegment raw(name);
    auto written = std::async([&] { return write(*writer, "0123456789abcdefghijXYZ"); });
    VDIFrameworkCommon::NamedCondition consumed;
    ASSERT_TRUE(consumed.create(("ED992248_" + name + "_write_condition").c_str()));
    const std::string chunks[] = {"0123456789", "abcdefghij", std::string("XYZ\0\0\0\0\0\0\0", 10)};
    for (unsigned int i = 0; i < 3; ++i) {
        ASSERT_TRUE(eventually([&] { return raw.word64(16) == i + 1; }));
        EXPECT_EQ((std::array{raw.word32(32), raw.word32(36), raw.word32(40), raw.word32(44)}),
                  (std::array{3U, i + 1, 23U, i < 2 ? 10U : 3U}));
        EXPECT_EQ(raw.bytes(48, 10), chunks[i]);
        raw.put<long>(24, i + 1);
        consumed.notify();
    }
    EXPECT_TRUE(written.get());
}

TEST_F(SegmentTest, TheObjectIsNamedByUserClientTypeAndSegment) {
    namespace VDIClientType = VDIFrameworkCommon::VDIClientType;
    const std::pair<VDIClientType::VDIClientTypeEnum, const char*> types[] = {
        {VDIClientType::Crews, "CWVDI_"},
        {VDIClientType::Meetings, "MTVDI_"},
        {VDIClientType::Unknown, "DEFVDI_"}};
    for (const auto& [type, prefix] : types) {
        VDIFrameworkCommon::VDIClientInfo::getInstance().setClientType(type);
        const auto segment = plain();
        ASSERT_TRUE(segment->Create(name, 10));
        EXPECT_NO_THROW(MappedObject(std::to_string(geteuid()) + prefix + name)) << prefix;
    }
}

TEST_F(SegmentTest, TheStepsOfOpeningAreLoggedInOrder) {
    LogCapture log;
    ASSERT_TRUE(reader->Open(name, 10));
    const Texts steps = {
        "CreateMutex for shared memory start Suceded, stream: " + name,
        "Create condition for reading shared memory start succeed, stream: " + name,
        "Create condition for writing shared memory start succeed, stream: " + name,
        "Creating/openning shared memory: " + name};
    auto lines = log.lines();
    lines.resize(steps.size());
    EXPECT_EQ(lines, steps);
    EXPECT_FALSE(reader->Open(name, 10));
    EXPECT_TRUE(log.contains("Shared Memory already initialized. SM: " + name));
    EXPECT_TRUE(reader->Close());
    EXPECT_TRUE(log.contains("Shared Memory closed."));
    EXPECT_FALSE(writer->Create(name, 0));
    EXPECT_FALSE(writer->Create(name, 0xffffffffU));
    EXPECT_EQ(log.count("Illegal capacity"), 2);
    EXPECT_TRUE(writer->Create(name, 10));
    EXPECT_TRUE(log.contains("CreateMutex for shared memory start succeed, stream: " + name));
}

TEST_F(SegmentTest, InvalidOperationsAreRefusedAndLogged) {
    LogCapture log;
    void* data = nullptr;
    unsigned int length = 7;
    EXPECT_FALSE(write(*writer, "x"));
    EXPECT_FALSE(writer->ReadData(&data, length));
    EXPECT_EQ(writer->ReadData(length, 0), "");
    EXPECT_FALSE(writer->Close());
    EXPECT_EQ(log.count("Illegal operation!"), 1);
    ASSERT_TRUE(writer->Create(name, 10));
    EXPECT_FALSE(writer->ReadData(&data, length));
    EXPECT_FALSE(writer->WriteData(nullptr, 3));
    EXPECT_TRUE(log.contains("Null data pointer!"));
    EXPECT_TRUE(write(*writer, ""));
    for (const int unknown : {3, -1})
        EXPECT_EQ(getSharedMemoryInstance(static_cast<ESharedMemoryType>(unknown)), nullptr);
}

TEST_F(SegmentTest, EndsOfDifferentCapacitiesWorkTogetherInEitherOrder) {
    const std::string message(250000, 'x');
    for (const bool writerFirst : {true, false}) {
        const std::string both = uniqueName();
        const auto out = plain();
        const auto in = plain();
        ASSERT_TRUE(writerFirst ? out->Create(both, 100000) : in->Open(both, 10));
        ASSERT_TRUE(writerFirst ? in->Open(both, 10) : out->Create(both, 100000));
        EXPECT_EQ(RawSegment(both).size(), 100048U);
        auto written = std::async([&] { return write(*out, message); });
        EXPECT_EQ(read(*in), message);
        EXPECT_TRUE(written.get());
    }
}

TEST_F(SegmentTest, AWholeMessageCanBeTakenAsAnArray) {
    ASSERT_TRUE(reader->Open(name, 16) && writer->Create(name, 16));
    void* data = nullptr;
    unsigned int length = 0;
    EXPECT_FALSE(reader->ReadData(&data, length));
    auto written = std::async([&] { return write(*writer, std::string(40, 'q')); });
    ASSERT_TRUE(eventually([&] { return reader->ReadData(&data, length); }));
    const std::unique_ptr<char[]> owned(static_cast<char*>(data));
    EXPECT_EQ(std::string(owned.get(), length), std::string(40, 'q'));
    EXPECT_TRUE(written.get());
}

TEST_F(SegmentTest, ANewReaderDropsTheWaitingChunkAndUnblocksTheWriter) {
    ASSERT_TRUE(reader->Open(name, 16) && writer->Create(name, 16));
    ASSERT_TRUE(write(*writer, "old"));
    auto written = std::async([&] { return write(*writer, "new"); });
    const auto second = plain();
    ASSERT_TRUE(second->Open(name, 16));
    EXPECT_EQ(read(*second), "new");
    EXPECT_TRUE(written.get());
}

TEST_F(SegmentTest, AWriterWithoutAReaderWaitsTwoSecondsAndThenWrites) {
    ASSERT_TRUE(writer->Create(name, 16));
    const auto start = Clock::now();
    EXPECT_TRUE(write(*writer, "first"));
    EXPECT_GE(since(start), milliseconds(1990));
    LogCapture log;
    EXPECT_FALSE(write(*writer, "second"));
    EXPECT_TRUE(log.contains("Memory is not writable: " + name));
}

// Puts the first chunk of an unfinished message into the slot.
void beginMessage(const std::string& name) {
    RawSegment raw(name);
    const std::uint32_t fields[] = {2, 1, 8, 4};
    for (std::size_t i = 0; i < 4; ++i) raw.put(32 + 4 * i, fields[i]);
    raw.put<long>(16, raw.word64(16) + 1);
}

TEST_F(SegmentTest, AnUnfinishedMessageIsReportedAndReplacedByTheNext) {
    ASSERT_TRUE(reader->Open(name, 4) && writer->Create(name, 4));
    LogCapture log;
    beginMessage(name);
    EXPECT_EQ(read(*reader, 20), "");
    auto written = std::async([&] { return write(*writer, "whole!"); });
    EXPECT_EQ(read(*reader), "whole!");
    EXPECT_TRUE(written.get());
    EXPECT_EQ(log.count("Previous message is broken!" + name), 1);
    beginMessage(name);
    EXPECT_EQ(read(*reader, 20), "");
    EXPECT_TRUE(reader->Close());
    EXPECT_EQ(log.count("The message is not received in full." + name), 1);
}

TEST_F(SegmentTest, WaitsOnOtherThreadsBlockNobodyAndEndWhenTheSegmentCloses) {
    ASSERT_TRUE(reader->Open(name, 4) && writer->Create(name, 4));
    const auto start = Clock::now();
    auto reading = std::async([&] { return read(*reader, 20000); });
    auto writing = std::async([&] { return write(*writer, std::string(12, 'x')); });
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(reader->getName(), name);
    EXPECT_TRUE(reader->Close());
    EXPECT_TRUE(writer->Close());
    reading.get();
    writing.get();
    EXPECT_LT(since(start), milliseconds(1500));
}

}  // namespace
