' What a script can do with WMI under Wine: list, fetch and query.
Set services = GetObject("winmgmts:\\.\root\cimv2")
For Each device In services.InstancesOf("Test_Device")
  WScript.Echo device.DeviceID & " " & device.Count
Next
WScript.Echo "got " & services.Get("Test_Device.DeviceID=""B""").DeviceID
For Each device In services.ExecQuery("SELECT * FROM Test_Device WHERE DeviceID='A'")
  WScript.Echo "found " & device.DeviceID
Next
On Error Resume Next
Set device = services.Get("Test_Device.DeviceID=""C""")
WScript.Echo "missing " & Hex(Err.Number)
