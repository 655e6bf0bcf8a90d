// Shows what the framework offers so far: values and their text forms, the log facility,
// and a broker hosting the memory module, reached through a proxy.
#include <cstdio>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "log/log.h"
#include "memory/kxstandardmodules.h"
#include "module/kxproxy.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace {

void show(const char* label, const KX::KXValue& value) {
  std::printf("%-28s %-8s %s\n", label, KX::KXValue::TypeToString(value.getType()).c_str(),
              value.toString(1).c_str());
}

}  // namespace

int main() {
  using KX::KXValue;

  KXValue array;
  array.arrayPush(1);
  array.arrayPush(2.5f);
  array.arrayPush("abc");
  array.arrayPush(true);
  KXValue inner;
  inner.arrayPush(2);
  inner.arrayPush(3);
  array.arrayPush(inner);

  show("an array:", array);
  show("its first element:", array[0]);

  KXValue parsed;
  parsed.unSerializeFromText("[0x1F, 'x y', [1.5, false]]");
  show("parsed from text:", parsed);

  KXValue blob;
  const unsigned char bytes[] = {0xFF, 0x00, 0x7F};
  blob.setBinary(bytes, sizeof bytes);
  std::printf("%-28s %s\n", "a blob in base64:", blob.encodeBase64().c_str());

  std::printf("\nThe same Int at verbosity 2:\n  %s\n", KXValue(42).toString(2).c_str());

  try {
    static_cast<int>(KXValue("not a number"));
  } catch (const KX::KXError& error) {
    std::printf("\nCasting a String to int fails with:\n%s\n\n", error.what());
  }

  tu::log::log(tu::log::info, "demo", "Velmo values and logging are ready.\n", __FILE__, "main",
               __LINE__);

  // A broker of this process, with the modules every root broker hosts.
  auto broker = KX::KXBroker::createBroker("demo", "127.0.0.1", 0, "", 0, KX::KXBroker::kKeepAlive);
  KX::addStandardModules(broker);
  KX::KXProxy memory(broker, "KXMemory");
  memory.call<void>("insertData", "robot/name", KXValue("Velmo"));
  const KXValue name = memory.call<KXValue>("getData", "robot/name");
  std::printf("\nKXMemory holds robot/name = %s\nIts methods:", name.toString(1).c_str());
  for (const std::string& method : memory.call<std::vector<std::string>>("getMethodList")) {
    std::printf(" %s", method.c_str());
  }
  std::printf("\n\n");
  broker->shutdown();
  return 0;
}
