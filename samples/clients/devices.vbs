' Lists the devices of one class, or all:  cscript //nologo devices.vbs [CLASS [COMPUTER]]
' One line a device, its fields separated by tabs. Exit code 1 when WMI cannot answer.
Option Explicit
Dim className, computer, wmi, device

className = "UPOS_LogicalDevice"
computer = "."
If WScript.Arguments.Count > 0 Then className = WScript.Arguments(0)
If WScript.Arguments.Count > 1 Then computer = WScript.Arguments(1)

On Error Resume Next
Set wmi = GetObject("winmgmts:\\" & computer & "\root\cimv2")
If Err.Number <> 0 Then Fail "WMI of " & computer
wmi.Get className ' a wrong name is told here, before the list is asked for
If Err.Number <> 0 Then Fail className
For Each device In wmi.InstancesOf(className)
  If Err.Number <> 0 Then Fail className
  WScript.Echo Text("DeviceID") & vbTab & Text("DeviceCategory") & vbTab & _
      Text("ManufacturerName") & vbTab & Text("ModelName") & vbTab & Text("SerialNumber") & _
      vbTab & Text("FirmwareRevision")
Next
If Err.Number <> 0 Then Fail className

Function Text(name)
  Text = device.Properties_(name).Value & "" ' NULL, which was not reported, is shown empty
End Function

Sub Fail(what)
  WScript.Echo "devices: " & what & ": error 0x" & Hex(Err.Number)
  WScript.Quit 1
End Sub
