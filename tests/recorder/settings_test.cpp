// What the configuration file, --input and --on-event say, and running the command.

#include "apps/recorder/base/Settings.h"

#include <chrono>
#include <cstring>

#include "apps/recorder/base/InputList.h"
#include "apps/recorder/recording/EventCommand.h"
#include "tests/support/RecorderProgram.h"

namespace recorder {
namespace {

std::string Show(const Settings& settings) {
  std::string text;
  for (const Setting& each : settings.all) {
    text += each.section + "/" + each.name + "=";
    for (const std::string& value : each.values) text += "<" + value + ">";
    text += "@" + std::to_string(each.line) + " ";
  }
  for (const std::string& each : settings.problems) text += "!" + each.substr(0, each.find(':'));
  return text;
}

// A password with a # in it, above all, must not be cut off.
TEST(Settings, Values) {
  const std::pair<const char*, const char*> rows[] = {
      {"a = b", "/a=<b>@1 "},
      {"# x\n; y\n\n a=rtsp://u:p#w@h/?a=1,2&b=[3]  # the door\r\n", "/a=<rtsp://u:p#w@h/?a=1,2&b=[3]>@4 "},
      {"a = \" b # c \"\na = 'd\"'", "/a=< b # c ><d\">@1 "},
      {"a = [b, \"c, d\", # first\n  e]\nf", "/a=<b><c, d><e>@1 /f=<true>@3 "},
      {"[record]\na=1\n[b]\na=2", "record/a=<1>@2 b/a=<2>@4 "},
      {"a = ", "/a=<>@1 "},
      {"a = \"b\na = [b\n", "!1!2"},
      {"a b = c\n= d\n[e\nf = 'g' h", "!1!2!3!4"},
  };
  for (const auto& [text, want] : rows) EXPECT_EQ(Show(ParseSettings(text)), want) << text;
}

TEST(Settings, Inputs) {
  const std::tuple<Names, const char*> rows[] = {
      {{"a.mp4", "rtsp://u:p@h/?x=y"}, "0::a.mp4 1::rtsp://u:p@h/?x=y "},
      {{"front=rtsp://h/?a=b", "2:back door=c.mp4", "d.mp4"},
       "0:front:rtsp://h/?a=b 2:back door:c.mp4 1::d.mp4 "},
      {{"0:a", "b"}, "0::a 1::b "},
      {{"./3:a=b.mp4", "-", "3:4:x"}, "0::./3:a=b.mp4 1::- 3::4:x "},
      {{"3:a", "3:b"}, "two inputs for channel 3"},
      {{"a=b", "a=c"}, "two inputs are called a"},
      {{"3:" + std::string(33, 'a') + "=rtsp://h"}, "an input cannot be called 'aaa"},
      {{"a!b=c"}, "an input cannot be called 'a!b'"},
      {{"1000:a=b"}, "there is no channel 1000"},
      {{"7=b"}, "an input cannot be called 7: that is a channel's number"},
      {{"32:a"}, "there is no channel 32: channels are numbered 0 to 31"},
      {{"3:a="}, "an --input has no address"},
      {Names(33, "a"), "33 inputs: at most 32 channels are possible"},
  };
  for (const auto& [texts, want] : rows) {
    std::vector<InputSpec> inputs;
    std::string shown;
    const auto refusal = ParseInputs(texts, 32, &inputs);
    for (const InputSpec& each : inputs)
      shown += std::to_string(each.channel) + ":" + each.name + ":" + each.address + " ";
    EXPECT_EQ(refusal ? refusal->substr(0, std::strlen(want)) : shown, want);
  }
}

TEST(EventCommand, SplitsWordsWithoutAShell) {
  EXPECT_EQ(SplitWords(" a  'b c' \"d'\"e \\\"f $(g) \\"), std::nullopt);
  EXPECT_EQ(SplitWords(" a  'b c' \"d'\"e \\\"f $(g);h*"), (Names{"a", "b c", "d'e", "\"f", "$(g);h*"}));
  EXPECT_EQ(SplitWords("a 'b"), std::nullopt);
  EXPECT_EQ(SplitWords("  "), std::nullopt);
}

// One at a time, in order, each with the event; one that hangs is killed, with its children, and the next one
// runs.
TEST(EventCommand, RunsOneAfterTheOther) {
  TestRoot root;
  const std::string log = root.Path() + "/log";
  const std::string script = "read line; echo \"${line%%,*}\" >> " + log +
                             "; case $line in *hang*) sleep 60 & sleep 60;; esac; sleep 0.05; echo end >> " +
                             log;
  const auto begin = std::chrono::steady_clock::now();
  {
    EventCommand command({"/bin/sh", "-c", script}, {400, 3000, 3});
    for (const char* event : {"one", "hang", "two"}) command.Post({{"event", event}});
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
  const std::string event = "{\"event\":\"";
  EXPECT_EQ(LinesOf(ReadText(log)), (Names{event + "one\"", "end", event + "hang\"", event + "two\"", "end"}));
}

}  // namespace
}  // namespace recorder
