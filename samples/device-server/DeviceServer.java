// A device server for a service in the adapter strategy: docs/first-device-server.md.
// java DeviceServer.java [REQUEST_PORT EVENT_PORT]
import static java.nio.charset.StandardCharsets.UTF_8;

import java.io.ByteArrayInputStream;
import java.net.*;
import java.util.*;
import java.util.stream.*;
import javax.xml.parsers.DocumentBuilderFactory;

public class DeviceServer {
  record Device(String id, String wmiClass, String model, int hours) {
    String fields() {
      return field("DeviceID", "string", id) + field("ManufacturerName", "string", "Veltran")
          + field("ModelName", "string", model) + field("HoursPoweredCount", "uint32", "" + hours);
    }
  }
  static final List<Device> DEVICES = List.of(
      new Device("SCANNER1", "UPOS_Scanner", "Scanner <7>", 19874),
      new Device("SCALE1", "UPOS_Scale", "Scale 15 kg", 402));

  static String field(String name, String type, String value) {
    return "<field name='" + name + "' type='" + type + "'>"
        + value.replace("&", "&amp;").replace("<", "&lt;") + "</field>";
  }
  static byte[] framed(String document) { // between ESC and BS
    return ("\u001B" + document + "\b").getBytes(UTF_8);
  }
  static String answer(String request) throws Exception {
    var parsers = DocumentBuilderFactory.newInstance();
    parsers.setFeature("http://apache.org/xml/features/disallow-doctype-decl", true);
    var source = new ByteArrayInputStream(request.getBytes(UTF_8));
    var document = parsers.newDocumentBuilder().parse(source);
    List<String> words = Stream.of("type", "class", "id").map(document::getElementsByTagName)
        .map(found -> found.getLength() == 0 ? "" : found.item(0).getTextContent()).toList();
    boolean all = words.get(0).equals("enumerateInstances");
    if (!all && !words.get(0).equals("getInstance"))
      return "<response><error name='unknown type'/></response>";
    return DEVICES.stream().filter(device -> all || device.id().equals(words.get(2)))
        .filter(d -> Set.of("UPOS_LogicalDevice", d.wmiClass()).contains(words.get(1)))
        .map(d -> "<instance name='" + d.wmiClass() + "'>" + d.fields() + "</instance>")
        .collect(Collectors.joining("", "<response>", "</response>"));
  }
  static void serve(Socket connection) { // one request, one answer
    try (connection) {
      connection.setSoTimeout(30_000);
      String message = new Scanner(connection.getInputStream(), UTF_8).useDelimiter("\b").next();
      String request = message.substring(message.indexOf('\u001B') + 1);
      connection.getOutputStream().write(framed(answer(request)));
    } catch (Exception problem) {
      System.err.println("request: " + problem);
    }
  }
  static void sendEvent(String type, Device device, int port) throws Exception {
    String category = device.wmiClass().substring("UPOS_".length());
    byte[] event = framed("<event type='" + type + "' classname='" + category + "' provider='"
        + device.wmiClass() + "'>" + device.fields() + "</event>");
    try (var socket = new DatagramSocket()) {
      socket.send(new DatagramPacket(event, event.length, InetAddress.getLoopbackAddress(), port));
    }
  }
  public static void main(String[] ports) throws Exception {
    int requests = ports.length > 0 ? Integer.parseInt(ports[0]) : 42115;
    int events = ports.length > 1 ? Integer.parseInt(ports[1]) : 42114;
    var listener = new ServerSocket(requests, 50, InetAddress.getLoopbackAddress());
    System.out.println("requests on 127.0.0.1:" + listener.getLocalPort());
    for (Device device : DEVICES) sendEvent("addInstance", device, events);
    while (true) {
      Socket connection = listener.accept();
      new Thread(() -> serve(connection)).start();
    }
  }
}
