' Ends with 0 if WMI knows Quillmon's classes.
On Error Resume Next
Set wmi = GetObject("winmgmts:\\.\root\cimv2")
For Each name In Array("UPOS_LogicalDevice", "UPOS_Scanner", "QuillmonEvent")
  Set found = wmi.Get(name)
  If Err.Number <> 0 Then
    WScript.Echo name & ": error 0x" & Hex(Err.Number)
    WScript.Quit 1
  End If
Next
WScript.Echo "WMI knows the classes"
