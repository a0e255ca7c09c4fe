#include "Events.h"

#include "BareXml.h"
#include "Sockets.h"
#include "TraceSwitch.h"

#include <string>
#include <string_view>
#include <thread>
#include <utility>

using Microsoft::WRL::ComPtr;

namespace bench::floor {
namespace {

struct Event {
  std::wstring type, className, id, code;
};

/// The trace lines of a stream event by design, without those of each receive and field. A datagram
/// event has none.
constexpr std::size_t kLinesOfStreamEvent = 5;

/// The published part of an event.
Event read(std::string_view document) {
  const bare_xml::Library library;
  bare_xml::Tree tree(document);
  Event event{wide(tree.root().getAttribute(u"type")),
              wide(tree.root().getAttribute(u"classname")),
              {},
              wide(tree.root().getAttribute(u"modifyInstanceCode"))};
  bare_xml::forEachField(tree.root(),
                         [&](const char16_t* name, const char16_t*, const char16_t* text) {
                           if (std::u16string_view(name) == u"DeviceID") {
                             event.id = wide(text);
                           }
                         });
  return event;
}

/// All fields: the proxy strategy reads each document twice.
PreparedDevice readFields(std::string_view document) {
  const bare_xml::Library library;
  bare_xml::Tree tree(document);
  PreparedDevice device;
  bare_xml::forEachField(tree.root(),
                         [&](const char16_t* name, const char16_t* word, const char16_t* text) {
                           PreparedField& field = device.emplace_back();
                           field.name = wide(name);
                           setValue(field.value, wide(word), wide(text));
                         });
  return device;
}

void put(IWbemClassObject& instance, const wchar_t* name, const std::wstring& text) {
  win::Variant value{win::Bstr(text)};
  instance.Put(name, 0, value.get(), 0);
}

void publish(IWbemClassObject& type, IWbemObjectSink& sink, const Event& event) {
  indicate(type, sink, [&](IWbemClassObject& instance) {
    put(instance, L"classname", event.className);
    put(instance, L"deviceid", event.id);
    put(instance, L"eventtype", event.type);
    put(instance, L"codename", event.code);
  });
}

/// Hands over one document at a time, as the design requires: put() waits for take().
class HandOver {
public:
  void put(std::string document) {
    WaitForSingleObject(waiting_.get(), INFINITE);
    slot_ = std::move(document);
    SetEvent(ready_.get());
  }
  std::string take() {
    WaitForSingleObject(free_.get(), INFINITE);
    SetEvent(waiting_.get());
    WaitForSingleObject(ready_.get(), INFINITE);
    return std::move(slot_);
  }
  void release() { SetEvent(free_.get()); }

private:
  const win::Handle free_{CreateEventA(nullptr, FALSE, TRUE, nullptr)};
  const win::Handle ready_{CreateEventA(nullptr, FALSE, FALSE, nullptr)};
  const win::Handle waiting_{CreateEventA(nullptr, FALSE, FALSE, nullptr)};
  std::string slot_;
};

/// Serves one connection at a time.
[[noreturn]] void receiveStreams(std::uint16_t port, HandOver& handOver) {
  constexpr std::string_view kEnd = "</event>";
  const win::Socket listener = bindTo(port, SOCK_STREAM);
  for (;;) {
    const win::Socket connection(accept(listener.get(), nullptr, nullptr));
    std::string pending;
    char piece[1023];
    for (int count; (count = recv(connection.get(), piece, sizeof piece, 0)) > 0;) {
      lookForTraceSwitch(1);
      pending.append(piece, static_cast<std::size_t>(count));
      std::size_t begin = 0;
      for (std::size_t end; (end = pending.find(kEnd, begin)) != std::string::npos;) {
        end += kEnd.size();
        handOver.put(pending.substr(begin, end - begin));
        begin = end;
      }
      pending.erase(0, begin);
    }
  }
}

ComPtr<IWbemClassObject> eventClass(IWbemServices& services) {
  ComPtr<IWbemClassObject> type;
  services.GetObject(win::Bstr(L"QuillmonEvent").get(), 0, nullptr, &type, nullptr);
  return type;
}

} // namespace

void forwardDatagrams(std::uint16_t port, IWbemServices& services, IWbemObjectSink& sink) {
  const win::Socket socket = bindTo(port, SOCK_DGRAM);
  const ComPtr<IWbemClassObject> type = eventClass(services);
  char datagram[1024];
  for (;;) {
    const int count = recv(socket.get(), datagram, sizeof datagram, 0);
    if (count > 2) { // ESC, the document, BS
      const std::string_view document(datagram + 1, static_cast<std::size_t>(count) - 2);
      publish(*type.Get(), sink, read(document));
    }
  }
}

void forwardStream(std::uint16_t port, IWbemServices& services, IWbemObjectSink& sink,
                   PreparedDevices& devices) {
  HandOver handOver;
  std::thread([port, &handOver] { receiveStreams(port, handOver); }).detach();
  const ComPtr<IWbemClassObject> type = eventClass(services);
  for (;;) {
    const std::string document = handOver.take();
    const Event event = read(document);
    PreparedDevice fields = readFields(document);
    lookForTraceSwitch(kLinesOfStreamEvent + fields.size());
    devices.store(event.id, std::move(fields));
    handOver.release();
    publish(*type.Get(), sink, event);
  }
}

} // namespace bench::floor
