// The plain core, natively: what turns bytes into values and back. Where a benchmark has a floor,
// the floor's name begins with "bare_".

#include "Documents.h"
#include "PreparedAnswer.h"
#include "adapter/FrameReader.h"
#include "adapter/UPOSXMLAdapter.h"
#include "floor/BareXml.h"
#include "provider/PropertyTypes.h"
#include "proxy/CIMContainer.h"
#include "proxy/CIMDeviceUtil.h"
#include "proxy/EventSplitter.h"
#include "proxy/ProxyImpXmlAdapter.h"
#include "strategy/UPOSAdapter.h"
#include "trace/PrintfFormat.h"
#include "xml/XmlLibrary.h"

#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <cstring>
#include <string>

using adapter::ByteBuffer;
using adapter::FrameArea;
using adapter::kFrameBegin;
using adapter::kFrameEnd;
using adapter::readFrame;
using com::orvex::UPOSAdapter;
using model::DeviceEvent;
using model::Fields;
using model::Instance;
using proxy::CIMContainer;
using proxy::CIMDeviceUtil;
using proxy::EventSplitter;
using trace::formatPrintf;
using trace::TraceArgument;
using xml::XmlLibrary;

namespace {

using com::orvex::ProxyImpXmlAdapter;

/// Callgrind counts the instructions between the two, and nothing else.
class Counted {
public:
  Counted() { CALLGRIND_TOGGLE_COLLECT; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() { CALLGRIND_TOGGLE_COLLECT; }
};

std::size_t sizeOf(const benchmark::State& state) {
  return static_cast<std::size_t>(state.range(0));
}

DeviceEvent eventOf(const char* type, std::size_t device) {
  ProxyImpXmlAdapter adapter;
  return adapter.fromXMLEvent(documents::event(type, device));
}

void fill(CIMContainer& container, std::size_t count) {
  DeviceEvent event = eventOf("addInstance", 0);
  for (std::size_t i = 0; i < count; ++i) {
    event.deviceId = documents::deviceId(i);
    CIMDeviceUtil::processEvent(event, container);
  }
}

Fields fieldsOf(std::size_t device) {
  return eventOf("addInstance", device).fields;
}

// -- documents; all but the first within a library that runs, so that its start is counted once

void startAndStop(benchmark::State& state) {
  for (auto round : state) {
    const Counted counted;
    const XmlLibrary library;
  }
}
BENCHMARK(startAndStop);

void toXML(benchmark::State& state) {
  const XmlLibrary running;
  UPOSXMLAdapter adapter;
  std::string request;
  for (auto round : state) {
    const Counted counted;
    adapter.toXML(documents::kClass, "request", "enumerateInstances", {}, request);
    benchmark::DoNotOptimize(request);
  }
}
BENCHMARK(toXML);

void fromXML(benchmark::State& state) {
  const XmlLibrary running;
  const std::string answer = documents::answer(sizeOf(state));
  for (auto round : state) {
    const Counted counted;
    UPOSXMLAdapter adapter;
    adapter.fromXML(answer);
    benchmark::DoNotOptimize(adapter.getInstances());
  }
}
BENCHMARK(fromXML)->RangeMultiplier(10)->Range(1, 10000);

/// The same document's tree, walked once.
void bare_fromXML(benchmark::State& state) {
  const XmlLibrary running;
  const std::string answer = documents::answer(sizeOf(state));
  for (auto round : state) {
    const Counted counted;
    const bare_xml::Library library;
    bare_xml::Tree tree(answer);
    std::size_t characters = 0;
    for (const xercesc::DOMElement* device = tree.root().getFirstElementChild(); device != nullptr;
         device = device->getNextElementSibling()) {
      bare_xml::forEachField(*device,
                             [&](const char16_t* name, const char16_t* type, const char16_t* text) {
                               characters += static_cast<std::size_t>(*name + *type + *text);
                             });
    }
    benchmark::DoNotOptimize(characters);
  }
}
BENCHMARK(bare_fromXML)->RangeMultiplier(10)->Range(1, 10000);

void fromXMLEvent(benchmark::State& state) {
  const XmlLibrary running;
  const std::string event = documents::event("modifyInstance", 1);
  UPOSXMLAdapter adapter;
  for (auto round : state) {
    const Counted counted;
    benchmark::DoNotOptimize(adapter.fromXMLEvent(event));
  }
}
BENCHMARK(fromXMLEvent);

void bare_fromXMLEvent(benchmark::State& state) {
  const XmlLibrary running;
  const std::string event = documents::event("modifyInstance", 1);
  for (auto round : state) {
    const Counted counted;
    const bare_xml::Library library;
    bare_xml::Tree tree(event);
    benchmark::DoNotOptimize(tree.root().getAttribute(u"type"));
  }
}
BENCHMARK(bare_fromXMLEvent);

/// What the event thread of the proxy strategy does with a document: it is read twice by design.
void proxyEvent(benchmark::State& state) {
  const XmlLibrary running;
  const std::string event = documents::event("modifyInstance", 1);
  CIMContainer container;
  fill(container, 100);
  for (auto round : state) {
    const Counted counted;
    ProxyImpXmlAdapter adapter;
    benchmark::DoNotOptimize(CIMDeviceUtil::processEvent(adapter.fromXMLEvent(event), container));
  }
}
BENCHMARK(proxyEvent);

/// Two trees, and a field of each name.
void bare_proxyEvent(benchmark::State& state) {
  const XmlLibrary running;
  const std::string event = documents::event("modifyInstance", 1);
  for (auto round : state) {
    const Counted counted;
    for (int reading = 0; reading < 2; ++reading) {
      bare_xml::Tree tree(event);
      benchmark::DoNotOptimize(tree.root().getAttribute(u"type"));
    }
  }
}
BENCHMARK(bare_proxyEvent);

/// From the list that was read to what becomes a VARIANT, as the provider does it.
void handOn(benchmark::State& state) {
  prepared_answer::devices.assign(sizeOf(state), Instance(fieldsOf(1)));
  provider::PropertyTypes types;
  types.fill();
  UPOSAdapter adapter;
  std::uint32_t status = 0;
  adapter.enumerateInstances(documents::kClass, &status);
  std::string name;
  std::string type;
  std::string text;
  for (auto round : state) {
    const Counted counted;
    provider::RequestTypes words(types);
    const std::int32_t count = adapter.getInstanceCount();
    for (std::int32_t device = 0; device < count; ++device) {
      const std::int32_t fields = adapter.selectInstance(device);
      for (std::int32_t field = 0; field < fields; ++field) {
        adapter.getPropertyItem(&name, device, field, 0);
        adapter.getPropertyItem(&type, device, field, 1);
        adapter.getPropertyItem(&text, device, field, 2);
        benchmark::DoNotOptimize(words.typeOf(type));
      }
    }
  }
}
BENCHMARK(handOn)->RangeMultiplier(10)->Range(1, 1000);

// -- bytes

/// An answer that arrives in pieces of 1 KiB.
void readAnswer(benchmark::State& state) {
  const std::string framed = kFrameBegin + documents::answer(sizeOf(state)) + kFrameEnd;
  const auto nothing = [](const ByteBuffer&) {};
  for (auto round : state) {
    const Counted counted;
    FrameArea area;
    ByteBuffer out(1024, 1.5F);
    std::size_t position = 0;
    readFrame(
        area, out,
        [&](char* piece, int size) {
          const std::size_t count =
              std::min(static_cast<std::size_t>(size), framed.size() - position);
          std::memcpy(piece, framed.data() + position, count);
          position += count;
          return static_cast<int>(count);
        },
        nothing, nothing);
    benchmark::DoNotOptimize(out.text());
  }
}
BENCHMARK(readAnswer)->RangeMultiplier(10)->Range(1, 10000);

/// One copy of the same bytes.
void bare_readAnswer(benchmark::State& state) {
  const std::string framed = kFrameBegin + documents::answer(sizeOf(state)) + kFrameEnd;
  for (auto round : state) {
    const Counted counted;
    std::string out(framed);
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(bare_readAnswer)->RangeMultiplier(10)->Range(1, 10000);

/// A stream of events that arrives in pieces of 1,023 bytes.
void splitStream(benchmark::State& state) {
  std::string stream;
  for (std::size_t i = 0; i < sizeOf(state); ++i) {
    stream += documents::event("modifyInstance", i);
  }
  for (auto round : state) {
    const Counted counted;
    EventSplitter splitter;
    std::size_t documents = 0;
    for (std::string_view rest = stream; !rest.empty();) {
      const std::string_view piece = rest.substr(0, 1023);
      documents += splitter.split(piece).size();
      rest.remove_prefix(piece.size());
    }
    benchmark::DoNotOptimize(documents);
  }
}
BENCHMARK(splitStream)->RangeMultiplier(10)->Range(10, 1000);

/// One document of that many pieces of 1,023 bytes.
void splitLongDocument(benchmark::State& state) {
  const std::string piece = std::string(1017, '<') + "</even";
  for (auto round : state) {
    const Counted counted;
    EventSplitter splitter;
    for (std::size_t i = 0; i < sizeOf(state); ++i) {
      splitter.split(piece);
    }
    benchmark::DoNotOptimize(splitter.split(EventSplitter::kEndMarker));
  }
}
BENCHMARK(splitLongDocument)->RangeMultiplier(10)->Range(10, 10000);

// -- the cache

/// A modification, among that many devices.
void processEvent(benchmark::State& state) {
  CIMContainer container;
  fill(container, sizeOf(state));
  const DeviceEvent event = eventOf("modifyInstance", sizeOf(state) - 1);
  for (auto round : state) {
    const Counted counted;
    benchmark::DoNotOptimize(CIMDeviceUtil::processEvent(event, container));
  }
}
BENCHMARK(processEvent)->RangeMultiplier(10)->Range(1, 10000);

/// A device that comes and goes, beside that many others.
void addAndRemove(benchmark::State& state) {
  CIMContainer container;
  fill(container, sizeOf(state));
  const DeviceEvent add = eventOf("addInstance", sizeOf(state));
  const DeviceEvent remove = eventOf("delInstance", sizeOf(state));
  for (auto round : state) {
    const Counted counted;
    benchmark::DoNotOptimize(CIMDeviceUtil::processEvent(add, container));
    benchmark::DoNotOptimize(CIMDeviceUtil::processEvent(remove, container));
  }
}
BENCHMARK(addAndRemove)->RangeMultiplier(10)->Range(1, 10000);

void listDevices(benchmark::State& state) {
  CIMContainer container;
  fill(container, sizeOf(state));
  for (auto round : state) {
    const Counted counted;
    benchmark::DoNotOptimize(container.getInstances(documents::kClass));
  }
}
BENCHMARK(listDevices)->RangeMultiplier(10)->Range(1, 10000);

// -- the trace

void formatLine(benchmark::State& state) {
  const std::string device = "SCANNER1";
  for (auto round : state) {
    const Counted counted;
    benchmark::DoNotOptimize(
        formatPrintf("<<UPOSXMLAdapter>> field %d name='%s', type='%s', value='%s'",
                     {TraceArgument(7), TraceArgument("DeviceID"), TraceArgument("string"),
                      TraceArgument(device)}));
  }
}
BENCHMARK(formatLine);

} // namespace

BENCHMARK_MAIN();
