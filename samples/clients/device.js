// Shows one device:  cscript //nologo device.js CLASS DEVICEID [PROPERTY...]
// What the device did not report is left out. Exit code 1 when there is no such device.
var words = WScript.Arguments;
if (words.length < 2) {
  WScript.Echo("usage: cscript //nologo device.js CLASS DEVICEID [PROPERTY...]");
  WScript.Quit(2);
}
var path = words(0) + '.DeviceID="' + words(1).replace(/(["\\])/g, "\\$1") + '"';
var names = [];
for (var i = 2; i < words.length; i++) {
  names.push(words(i));
}
if (names.length === 0) {
  names = ["DeviceID", "DeviceCategory", "ManufacturerName", "ModelName", "SerialNumber",
           "FirmwareRevision", "HoursPoweredCount", "CommunicationErrorCount"];
}

try {
  var wmi = new ActiveXObject("WbemScripting.SWbemLocator").ConnectServer(".", "root\\cimv2");
  var device = wmi.Get(path);
  for (var n = 0; n < names.length; n++) {
    var value = device.Properties_.Item(names[n]).Value;
    if (value !== null) {
      WScript.Echo(names[n] + " = " + value);
    }
  }
} catch (failure) {
  // 80041001 (WBEM_E_FAILED): the device server does not know this device, or cannot be reached.
  WScript.Echo("device: " + path + ": error 0x" + (failure.number >>> 0).toString(16));
  WScript.Quit(1);
}
