#include <korvel/debug/WaveWriter.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "debug/DebugTestSupport.h"
#include "support/TestEnv.h"

namespace korvel {
namespace {

using korvel::WaveWriteStatus;
using testing::parseWave;
using testing::readBytes;

class WaveWriterTest : public ::testing::Test {
 protected:
  std::filesystem::path file(const char* name) {
    return std::filesystem::path(env_.documentsDirectory()) / name;
  }
  testing::TestEnv env_;
};

KVNPCMBuffer buffer(KVNAudioFormat format, uint32_t frames) {
  KVNPCMBuffer b;
  b.format = format;
  b.frameLength = frames;
  b.frames.resize(static_cast<size_t>(frames) * format.bytesPerFrame());
  for (size_t i = 0; i < b.frames.size(); ++i) b.frames[i] = static_cast<uint8_t>(i * 7 + 1);
  return b;
}

TEST_F(WaveWriterTest, HeaderDescribesIntegerAndFloatFormats) {
  struct Case {
    KVNAudioFormat format;
    uint32_t frames;
    uint16_t tag;
  };
  const Case cases[] = {
      {{44100, 2, 16, false}, 5, 1},
      {{16000, 1, 8, false}, 3, 1},  // odd data size: padded
      {{48000, 1, 32, true}, 4, 3},
      {{96000, 6, 24, false}, 2, 1},
      {{8000, 1, 64, true}, 1, 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.format.bitsPerSample) + " bits, " +
                 ::testing::PrintToString(c.format.channelCount) + " channels");
    const auto in = buffer(c.format, c.frames);
    const auto path = file("take-caf");
    ASSERT_EQ(writeWaveFile(path, in), WaveWriteStatus::Written);
    const auto wave = parseWave(readBytes(path));
    ASSERT_TRUE(wave.valid);
    EXPECT_EQ(std::tuple(wave.formatTag, wave.channels, wave.sampleRate, wave.bitsPerSample,
                         wave.blockAlign, wave.byteRate, wave.frameCount()),
              std::tuple(c.tag, c.format.channelCount, static_cast<uint32_t>(c.format.sampleRate),
                         c.format.bitsPerSample, c.format.bytesPerFrame(),
                         wave.sampleRate * wave.blockAlign, c.frames));
    EXPECT_EQ(wave.data, in.frames);
    if (c.format.isFloat) {
      EXPECT_EQ(wave.factFrames, c.frames);
    }
  }
}

TEST_F(WaveWriterTest, WritesOnlyFrameLengthFramesAndReplacesAnOlderFile) {
  const auto path = file("take-caf");
  ASSERT_EQ(writeWaveFile(path, buffer({44100, 2, 16, false}, 1000)),
            WaveWriteStatus::Written);
  auto shorter = buffer({44100, 2, 16, false}, 10);
  shorter.frameLength = 4;  // the buffer holds more than it recorded
  ASSERT_EQ(writeWaveFile(path, shorter), WaveWriteStatus::Written);
  const auto wave = parseWave(readBytes(path));
  ASSERT_TRUE(wave.valid);
  EXPECT_EQ(wave.frameCount(), 4u);
  EXPECT_EQ(wave.data, std::vector<uint8_t>(shorter.frames.begin(), shorter.frames.begin() + 16));
}

TEST_F(WaveWriterTest, RefusesFormatsAndBuffersItCannotDescribe) {
  const KVNAudioFormat bad[] = {
      {44100, 0, 16, false},  {44100, 1, 12, false}, {44100, 1, 16, true},
      {0, 1, 16, false},      {NAN, 1, 16, false},   {-8000, 1, 16, false},
      {1e12, 1, 16, false},
  };
  for (const auto& format : bad) {
    KVNPCMBuffer b;
    b.format = format;
    b.frameLength = 1;
    b.frames.resize(16);
    EXPECT_EQ(writeWaveFile(file("bad"), b), WaveWriteStatus::UnsupportedFormat);
  }
  EXPECT_FALSE(std::filesystem::exists(file("bad")));

  auto shortBuffer = buffer({44100, 2, 16, false}, 3);
  shortBuffer.frameLength = 4;
  EXPECT_EQ(writeWaveFile(file("short"), shortBuffer), WaveWriteStatus::ShortBuffer);
  EXPECT_FALSE(std::filesystem::exists(file("short")));
}

TEST_F(WaveWriterTest, DoesNotWriteThroughASymbolicLink) {
  const auto target = file("elsewhere");
  { std::ofstream(target) << "keep"; }
  std::filesystem::create_symlink(target, file("link-caf"));
  std::error_code error;
  EXPECT_EQ(writeWaveFile(file("link-caf"), buffer({8000, 1, 16, false}, 2), error),
            WaveWriteStatus::WriteFailed);
  EXPECT_TRUE(error);
  EXPECT_EQ(readBytes(target), (std::vector<uint8_t>{'k', 'e', 'e', 'p'}));
}

}  // namespace
}  // namespace korvel
