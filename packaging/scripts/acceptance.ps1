# Checks on a real Windows what Wine cannot show: installs, compiles, lists, watches, upgrades,
# removes. Stops at the first deviation from docs\install.md. NOT RUN YET.
#
#   powershell -ExecutionPolicy Bypass -File acceptance.ps1 -Installer quillmon-VERSION-win64.exe
#
# Run it elevated, on a machine without Quillmon. It writes a report beside the installer.
param([Parameter(Mandatory)][string]$Installer)

Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'
$Installer = (Resolve-Path $Installer).Path
$report = Join-Path (Split-Path $Installer) 'acceptance-report.txt'
$folder = 'C:\Quillmon'
$program = "$folder\program"
$configuration = 'C:\POS\JavaPOS\Config\quillmon.properties'
$uninstallKey = 'HKLM:\Software\Microsoft\Windows\CurrentVersion\Uninstall\Quillmon'
$till = $null
$accepted = $false

function Step($text, [scriptblock]$block) {
  Write-Output "---- $text"
  & $block
}
function Expect($condition, $text) {
  if (-not $condition) { throw "not as documented: $text" }
  Write-Output "ok   $text"
}
function Run($file, $arguments) {
  (Start-Process -FilePath $file -ArgumentList $arguments -Wait -PassThru).ExitCode
}
function Service { Get-CimInstance Win32_Service -Filter "Name='QuillmonServ'" }

Start-Transcript -Path $report | Out-Null
try {
  Step 'the machine' {
    Get-CimInstance Win32_OperatingSystem | Format-List Caption, Version | Out-String
    Expect (-not (Service)) 'no Quillmon is installed'
  }

  Step 'installing' {
    Expect ((Run $Installer '/S') -eq 0) 'the installer ends with 0'
    $service = Service
    Expect ($service.State -eq 'Running') 'the service runs'
    Expect ($service.StartMode -eq 'Auto') 'it starts with the system'
    Expect ($service.StartName -eq 'LocalSystem') 'it runs as LocalSystem'
    $path = $service.PathName
    Expect ($path -match '^("[^"]+"|[^ ]+)( -o)?$') "its path is in quotes or needs none: $path"
    Start-Sleep -Seconds 10 # a start that fails ends by then
    Expect ((Service).State -eq 'Running') 'it still runs after ten seconds'
  }

  Step 'the rights' {
    $sid = [System.Security.Principal.SecurityIdentifier]
    $trusted = 'S-1-5-18', 'S-1-5-32-544'
    $readOnly = [System.Security.AccessControl.FileSystemRights]'ReadAndExecute, Synchronize'
    foreach ($path in $folder, $program, "$program\quillmon.exe") {
      $acl = Get-Acl $path
      $owner = $acl.GetOwner($sid).Value
      Expect ($trusted -contains $owner) "$path belongs to administrators"
      foreach ($rule in $acl.GetAccessRules($true, $true, $sid)) {
        $isTrusted = $trusted -contains $rule.IdentityReference.Value
        $isReadOnly = ($rule.FileSystemRights -bor $readOnly) -eq $readOnly
        Expect ($isTrusted -or $isReadOnly) "$path grants $($rule.IdentityReference) no writing"
      }
    }
  }

  Step 'the classes' {
    & "$env:windir\System32\wbem\mofcomp.exe" -check "$program\quillmon.mof"
    Expect ($LASTEXITCODE -eq 0) 'mofcomp finds no fault in quillmon.mof'
    $wanted = Select-String -Path "$program\quillmon.mof" -Pattern '^class (\w+)' |
      ForEach-Object { $_.Matches[0].Groups[1].Value }
    Expect ($wanted.Count -gt 30) "the file has $($wanted.Count) classes"
    foreach ($name in $wanted) { Get-CimClass -ClassName $name | Out-Null }
    Write-Output 'ok   WMI knows all of them'
    $provider = Get-CimInstance __Win32Provider -Filter "Name='QuillmonService'"
    Expect $provider 'the provider is registered'
  }

  Step 'listing' {
    $start = New-Object System.Diagnostics.ProcessStartInfo "$program\quillmon-till.exe"
    $start.Arguments = "$program\samples\till.xml"
    $start.UseShellExecute = $false
    $start.RedirectStandardInput = $true
    $start.RedirectStandardOutput = $true
    $script:till = [System.Diagnostics.Process]::Start($start)
    $line = $till.StandardOutput.ReadLine()
    Expect ($line -like 'quillmon-till: ready:*') "a simulated till answers: $line"
    $scanners = Get-CimInstance UPOS_Scanner
    $scanners | Format-Table DeviceID, ManufacturerName, ModelName | Out-String
    Expect (@($scanners.DeviceID) -contains 'SCANNER1') 'its scanner is listed'
    $named = @{ DeviceID = 'SCANNER1' }
    $key = New-CimInstance -ClassName UPOS_Scanner -Property $named -Key DeviceID -ClientOnly
    $scanner = Get-CimInstance -InputObject $key
    Expect ($scanner.DeviceID -eq 'SCANNER1') 'its scanner is found by its key'
    & "$program\quillmonctl.exe" status
    Expect ($LASTEXITCODE -eq 0) 'quillmonctl finds nothing wrong'
  }

  Step 'watching' {
    Register-CimIndicationEvent -Query 'SELECT * FROM QuillmonEvent' -SourceIdentifier Quillmon
    $till.StandardInput.WriteLine('attach MICR1')
    $seen = Wait-Event -SourceIdentifier Quillmon -Timeout 30
    Expect $seen 'an event arrives within 30 seconds'
    $new = @($seen)[0].SourceEventArgs.NewEvent
    $what = "$($new.eventtype) of $($new.deviceid)"
    Expect ($what -eq 'addInstance of MICR1') "it is $what"
    Unregister-Event -SourceIdentifier Quillmon
  }

  Step 'upgrading' {
    $till.StandardInput.Close()
    Expect ($till.WaitForExit(10000)) 'the simulated till ends'
    $before = (Service).ProcessId
    Add-Content $configuration '; edited'
    Expect ((Run $Installer '/S') -eq 0) 'the installer ends with 0'
    Expect ((Service).State -eq 'Running' -and (Service).ProcessId -ne $before) 'a new process runs'
    Expect (Select-String '; edited' $configuration) 'what was edited is kept'
  }

  Step 'removing' {
    Expect ((Run "$folder\uninstall.exe" "/S _?=$folder") -eq 0) 'the uninstaller ends with 0'
    Expect (-not (Service)) 'the service is gone'
    $class = Get-CimClass -ClassName UPOS_LogicalDevice -ErrorAction SilentlyContinue
    Expect (-not $class) 'the classes are gone'
    Expect (-not (Test-Path $program)) 'the program is gone'
    Expect (-not (Test-Path $uninstallKey)) 'Windows lists it no more'
    Expect (Test-Path $configuration) 'what was edited is still there'
    Remove-Item "$folder\uninstall.exe"
    Remove-Item $configuration
  }
  $accepted = $true
  Write-Output 'ACCEPTED'
} catch {
  Write-Output "NOT ACCEPTED: $_"
  Get-Content "$folder\setup.log" -ErrorAction SilentlyContinue
} finally {
  if ($till -and -not $till.HasExited) { $till.Kill() }
  Stop-Transcript | Out-Null
}
if (-not $accepted) { exit 1 }
