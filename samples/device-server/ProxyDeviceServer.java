// A device server for a service in the proxy strategy: docs/first-device-server.md.
// java ProxyDeviceServer.java [EVENT_PORT]
import static java.nio.charset.StandardCharsets.UTF_8;

import java.io.*;
import java.net.Socket;
import java.util.*;

public class ProxyDeviceServer {
  record Device(String id, String wmiClass, String model, int hours) {
    byte[] event(String type) { // what begins and ends it is read to the letter
      return ("<?xml version='1.0' encoding='UTF-8' standalone='no' ?><event type='" + type
          + "' classname='" + wmiClass + "' modifyInstanceCode='' provider='" + wmiClass + "'>"
          + field("DeviceID", "string", id) + field("ManufacturerName", "string", "Veltran")
          + field("ModelName", "string", model) + field("HoursPoweredCount", "uint32", "" + hours)
          + "</event>").getBytes(UTF_8);
    }
  }
  static final List<Device> DEVICES = List.of(
      new Device("SCANNER1", "UPOS_Scanner", "Scanner <7>", 19874),
      new Device("SCALE1", "UPOS_Scale", "Scale 15 kg", 402));

  static String field(String name, String type, String value) {
    return "<field name='" + name + "' type='" + type + "'>"
        + value.replace("&", "&amp;").replace("<", "&lt;") + "</field>";
  }
  static void sendAll(Socket connection, String type) throws IOException {
    for (Device device : DEVICES) connection.getOutputStream().write(device.event(type));
  }
  static void serve(int port) throws IOException {
    try (Socket connection = new Socket("127.0.0.1", port)) {
      System.out.println("connected to 127.0.0.1:" + port);
      sendAll(connection, "addInstance");
      var requests = new Scanner(connection.getInputStream(), UTF_8).useDelimiter("</request>");
      while (requests.hasNext()) { // until the service ends the connection
        requests.next(); // there is one kind of request: updateInstances
        sendAll(connection, "modifyInstance");
      }
    }
  }
  public static void main(String[] port) throws InterruptedException {
    for (long pause = 100; true; pause = Math.min(2 * pause, 5000)) { // connect again, and again
      try {
        serve(port.length > 0 ? Integer.parseInt(port[0]) : 42114);
      } catch (IOException problem) {
        System.out.println(problem.getMessage());
      }
      Thread.sleep(pause);
    }
  }
}
