' Writes counters of the devices for Prometheus (windows_exporter's textfile collector):
'   cscript //nologo metrics.vbs C:\metrics\quillmon.prom [CLASS.COUNTER...]
' as in UPOS_Scanner.GoodScanCount; every device's hours and communication errors come anyway.
' The file is replaced by a renaming, so that no scrape reads half of it. quillmon_up is 0 when WMI
' did not answer; the exit code is then 1.
Option Explicit
Dim files, wmi, text, up, words, i

If WScript.Arguments.Count = 0 Then
  WScript.Echo "usage: cscript //nologo metrics.vbs FILE [CLASS.COUNTER...]"
  WScript.Quit 2
End If

up = 1
Connect
Add "UPOS_LogicalDevice", "HoursPoweredCount"
Add "UPOS_LogicalDevice", "CommunicationErrorCount"
For i = 1 To WScript.Arguments.Count - 1
  words = Split(WScript.Arguments(i), ".")
  Add words(0), words(1)
Next
text = text & "# TYPE quillmon_up gauge" & vbLf & "quillmon_up " & up & vbLf
Replace_ WScript.Arguments(0)
WScript.Quit 1 - up

Sub Connect
  On Error Resume Next ' without it each family fails, and says so
  Set wmi = GetObject("winmgmts:\\.\root\cimv2")
End Sub

' One family of samples. UPOS_Scanner's GoodScanCount becomes quillmon_scanner_good_scan_count.
Sub Add(className, counter)
  Dim device, family, value
  On Error Resume Next
  wmi.Get className
  For Each device In wmi.InstancesOf(className)
    If Err.Number <> 0 Then Exit For
    value = device.Properties_(counter).Value
    If Not IsNull(value) Then
      If value < 0 Then value = value + 4294967296 ' scripts see the unsigned number as signed
      family = family & MetricName(className, counter) & "{device=""" & _
          Label(device.Properties_("DeviceID").Value) & """,model=""" & _
          Label(device.Properties_("ModelName").Value) & """} " & value & vbLf
    End If
  Next
  If Err.Number <> 0 Then
    up = 0
  ElseIf family <> "" Then
    text = text & "# TYPE " & MetricName(className, counter) & " counter" & vbLf & family
  End If
End Sub

Function MetricName(className, counter)
  Dim pattern, prefix
  Set pattern = New RegExp
  pattern.Pattern = "([a-z0-9])([A-Z])"
  pattern.Global = True
  prefix = LCase(Mid(className, Len("UPOS_") + 1)) & "_"
  MetricName = "quillmon_" & prefix & LCase(pattern.Replace(counter, "$1_$2"))
End Function

' The escapes of Prometheus' text format.
Function Label(value)
  Label = Replace(Replace(value & "", "\", "\\"), """", "\""")
  Label = Replace(Label, vbLf, "\n")
End Function

Sub Replace_(target)
  Dim file
  Set files = CreateObject("Scripting.FileSystemObject")
  Set file = files.CreateTextFile(target & ".new", True)
  file.Write text
  file.Close
  If files.FileExists(target) Then files.DeleteFile target
  files.MoveFile target & ".new", target
End Sub
