# Proves on a real Windows, in minutes, what Wine cannot show, and leaves the machine as it was.
# NOT RUN YET by anybody.
#
#   powershell -ExecutionPolicy Bypass -File acceptance.ps1 -Package quillmon-VERSION-win64.msi
#       -Previous FILE.msi   also upgrades, from the package of the last version
#       -BeforeRestart       leaves Quillmon installed at the end; restart Windows, then run it with
#       -AfterRestart        which looks at the machine after the restart, and removes Quillmon
#
# Run it elevated, in 64-bit Windows PowerShell 5.1, on a machine without Quillmon and without a device
# server. WMI is restarted and ended in between: other programs that use it notice.
#
# It prints one line for each claim and a table at the end. Beside the package it leaves
# acceptance-report.txt, acceptance-report.json and the installer's logs.
# Verdicts: passed, failed, observed (nothing is promised here; the answer is news), not tried.
# Exit code: 0 nothing failed, 1 a claim failed, 2 the machine is not fit and nothing was done.
[CmdletBinding()]
param(
  [Parameter(Mandatory = $true)][string] $Package,
  [string] $Previous = '',
  [switch] $BeforeRestart,
  [switch] $AfterRestart
)

Set-StrictMode -Version Latest
$ErrorActionPreference = 'Stop'

$Package = (Resolve-Path -LiteralPath $Package).ProviderPath
if ($Previous) { $Previous = (Resolve-Path -LiteralPath $Previous).ProviderPath }
$place = Split-Path -Parent $Package
$stateFile = Join-Path $place 'acceptance-state.json'
$folder = Join-Path $env:ProgramFiles 'Quillmon'
$posFolder = Join-Path $env:SystemDrive '\POS'
$configuration = Join-Path $posFolder 'JavaPOS\Config\quillmon.properties'
$userName = 'QuillmonAccept'
$untried = 'NOT TRIED: '
$listKeys = @(
  'HKLM:\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall',
  'HKLM:\SOFTWARE\WOW6432Node\Microsoft\Windows\CurrentVersion\Uninstall'
)
$umlaut = [string][char]0xFC
$model = 'Till scanner ' + $umlaut

$script:group = ''
$script:verdicts = @()
$script:till = $null
$script:foreignService = $false
$script:foreignClass = $false
$script:isEdited = $false # the configuration file, by this script

# ------------------------------------------------------------------------------------ verdicts

function Add-Verdict($claim, $verdict, $detail) {
  $script:verdicts += [pscustomobject]@{
    group = $script:group; claim = $claim; verdict = $verdict; detail = $detail
  }
  Write-Host ('{0,-9} {1}: {2}. {3}' -f $verdict, $script:group, $claim, $detail)
}

# 'passed' with what the block says, 'failed' with what it throws.
function Test-Claim([string] $claim, [scriptblock] $block) {
  try {
    $said = (& $block | Out-String).Trim()
    Add-Verdict $claim 'passed' $said
  } catch {
    $words = [string]$_.Exception.Message
    if ($words.StartsWith($untried)) {
      Add-Verdict $claim 'not tried' $words.Substring($untried.Length)
    } else {
      Add-Verdict $claim 'failed' $words
    }
  }
}

# Records what the block says or throws: nothing is promised.
function Add-Observation([string] $question, [scriptblock] $block) {
  try {
    $said = (& $block | Out-String).Trim()
  } catch {
    $said = 'error: ' + $_.Exception.Message
  }
  Add-Verdict $question 'observed' $said
}

function Assert($condition, [string] $text) {
  if (-not $condition) { throw $text }
}

# True as soon as the block says so, false after the time. A block that throws does not say so yet.
function Wait-Until([int] $seconds, [scriptblock] $block) {
  $end = (Get-Date).AddSeconds($seconds)
  do {
    $done = $false
    try { $done = & $block } catch { $done = $false }
    if ($done) { return $true }
    Start-Sleep -Milliseconds 500
  } while ((Get-Date) -lt $end)
  return $false
}

# Without a byte order mark, which Set-Content -Encoding UTF8 would write.
function Write-Utf8([string] $file, [string] $text) {
  [System.IO.File]::WriteAllText($file, $text, (New-Object System.Text.UTF8Encoding $false))
}

# ----------------------------------------------------------------------------------- the machine

function Get-Product {
  $found = @()
  foreach ($key in $listKeys) {
    if (-not (Test-Path $key)) { continue }
    foreach ($entry in Get-ChildItem $key) {
      $name = [string]$entry.GetValue('DisplayName', '')
      if ($name -like 'Quillmon*' -or $name -like 'ORVEX Quillmon*') {
        $version = [string]$entry.GetValue('DisplayVersion', '')
        $found += [pscustomobject]@{ Code = $entry.PSChildName; Name = $name; Version = $version }
      }
    }
  }
  return $found
}

function Get-AutorecoverList {
  $key = Get-Item 'HKLM:\SOFTWARE\Microsoft\WBEM\CIMOM'
  return @($key.GetValue('Autorecover MOFs', @()))
}

# Everything that an installation, or this script, might leave behind, one text each.
function Get-Traces {
  $found = @()
  foreach ($class in @(Get-CimClass -ClassName 'UPOS_*' -ErrorAction SilentlyContinue)) {
    $found += 'class ' + $class.CimClassName
  }
  if (Get-CimClass -ClassName QuillmonEvent -ErrorAction SilentlyContinue) {
    $found += 'class QuillmonEvent'
  }
  foreach ($one in @(Get-CimInstance __Win32Provider -Filter "Name='QuillmonService'")) {
    $found += 'provider ' + $one.Name
  }
  if (Get-Service QuillmonServ -ErrorAction SilentlyContinue) { $found += 'service QuillmonServ' }
  foreach ($one in @(Get-Product)) { $found += 'product ' + $one.Name }
  foreach ($path in $folder, $posFolder, $configuration) {
    if (Test-Path -LiteralPath $path) { $found += 'file ' + $path }
  }
  $keys = 'HKLM:\SOFTWARE\Veltran', 'HKLM:\SOFTWARE\ORVEX',
    'HKLM:\SYSTEM\CurrentControlSet\Services\EventLog\Application\Quillmon'
  foreach ($key in $keys) {
    if (Test-Path $key) { $found += 'key ' + $key }
  }
  foreach ($file in Get-AutorecoverList) {
    if ($file -like '*quillmon*') { $found += 'autorecover ' + $file }
  }
  foreach ($class in '__EventFilter', 'NTEventLogEventConsumer') {
    foreach ($one in @(Get-CimInstance -Namespace root/subscription -ClassName $class)) {
      if ($one.Name -like 'Quillmon*') { $found += "subscription $class " + $one.Name }
    }
  }
  if (Get-LocalUser -Name $userName -ErrorAction SilentlyContinue) { $found += 'user ' + $userName }
  return $found
}

function Get-AnsiCodePage {
  $key = Get-Item 'HKLM:\SYSTEM\CurrentControlSet\Control\Nls\CodePage'
  return [int]$key.GetValue('ACP')
}

function Get-BootTime { (Get-CimInstance Win32_OperatingSystem).LastBootUpTime }

# ---------------------------------------------------------------------------------- the package

function Invoke-Msi([string] $what, [string] $name, [string[]] $more) {
  $log = Join-Path $place "acceptance-$name.log"
  $words = @($what) + $more + @('/qn', '/norestart', '/l*v', ('"{0}"' -f $log))
  $process = Start-Process -FilePath msiexec.exe -ArgumentList $words -Wait -PassThru
  return $process.ExitCode
}

function Install-Package([string] $file, [string] $name, [string[]] $properties) {
  $code = Invoke-Msi '/i' $name (@('"{0}"' -f $file) + $properties)
  Assert ($code -eq 0) "msiexec /i ends with $code, see acceptance-$name.log"
}

function Remove-Package([string] $name) {
  foreach ($one in @(Get-Product)) {
    $code = Invoke-Msi '/x' $name @($one.Code)
    Assert ($code -eq 0) "msiexec /x ends with $code, see acceptance-$name.log"
  }
}

function Get-ServiceData { Get-CimInstance Win32_Service -Filter "Name='QuillmonServ'" }

function Get-ServiceProgram {
  $path = (Get-ServiceData).PathName
  if ($path -match '^"([^"]+)"') { $path = $Matches[1] } else { $path = ($path -split ' ')[0] }
  return $path.Replace('/', '\')
}

function Get-Shipped([string] $name) {
  $found = @(Get-ChildItem -LiteralPath $folder -Recurse -Filter $name)
  Assert ($found.Count -gt 0) "$name is not below $folder"
  return $found[0].FullName
}

# ------------------------------------------------------------------------------ the device server

# The simulated till, with one model name that is not ASCII.
function Start-Till([string] $strategy) {
  $text = [System.IO.File]::ReadAllText((Get-Shipped 'till.xml'))
  $inventory = Join-Path $place 'acceptance-till.xml'
  Write-Utf8 $inventory $text.Replace('VS-3200 bi-optic', $model)
  $start = New-Object System.Diagnostics.ProcessStartInfo (Get-Shipped 'quillmon-till.exe')
  $start.Arguments = '"{0}" --quiet --strategy {1} --event-classname whole' -f $inventory, $strategy
  $start.UseShellExecute = $false
  $start.RedirectStandardInput = $true
  $start.RedirectStandardOutput = $true
  $script:till = [System.Diagnostics.Process]::Start($start)
  $line = $script:till.StandardOutput.ReadLine()
  Assert ($line -like 'quillmon-till: ready:*') "the simulated till says: $line"
}

function Send-TillCommand([string] $command) {
  $script:till.StandardInput.Write($command + "`n") # AutoFlush is on
}

function Stop-Till {
  if ($null -eq $script:till) { return }
  if (-not $script:till.HasExited) {
    $script:till.StandardInput.Close()
    if (-not $script:till.WaitForExit(10000)) { $script:till.Kill() }
  }
  $script:till = $null
}

# ------------------------------------------------------------------------------------ what is asked

function Get-DeviceId { @(Get-CimInstance UPOS_LogicalDevice | ForEach-Object { $_.DeviceID }) }

function Get-OneScanner {
  $named = @{ DeviceID = 'SCANNER1' }
  $key = New-CimInstance -ClassName UPOS_Scanner -Property $named -Key DeviceID -ClientOnly
  return Get-CimInstance -InputObject $key
}

# What a subscriber sees of a device that comes and goes.
function Get-EventsOfOneDevice {
  $source = 'Quillmon.' + [guid]::NewGuid()
  $texts = @()
  Register-CimIndicationEvent -Query 'SELECT * FROM QuillmonEvent' -SourceIdentifier $source
  try {
    foreach ($command in 'attach MICR1', 'detach MICR1') {
      Send-TillCommand $command
      $arrived = @(Wait-Event -SourceIdentifier $source -Timeout 30)
      Assert ($arrived.Count -gt 0) "no event within 30 seconds after: $command"
      $event1 = $arrived[0].SourceEventArgs.NewEvent
      $texts += $event1.eventtype + ' ' + $event1.deviceid
      Remove-Event -EventIdentifier $arrived[0].EventIdentifier
    }
  } catch {
    Send-TillCommand 'detach MICR1'
    throw
  } finally {
    Unregister-Event -SourceIdentifier $source
    Remove-Event -SourceIdentifier $source -ErrorAction SilentlyContinue
  }
  return $texts -join ', '
}

function Test-Events {
  $seen = Get-EventsOfOneDevice
  Assert ($seen -eq 'addInstance MICR1, delInstance MICR1') "it sees: $seen"
  return $seen
}

# The service has its devices: at once in the adapter strategy, after the till's connection in the
# other.
function Wait-ForDevices([int] $seconds) {
  return Wait-Until $seconds { @(Get-DeviceId) -contains 'SCANNER1' }
}

function Restart-Quillmon {
  Restart-Service QuillmonServ
  Assert (Wait-ForDevices 60) 'no devices within 60 seconds after a restart of the service'
}

function Get-Registrations {
  $key = 'HKLM:\SOFTWARE\Microsoft\Wbem\Transports\Decoupled'
  if (-not (Test-Path $key)) { throw ($untried + "there is no key $key here") }
  return @(Get-ChildItem $key -Recurse).Count
}

# ------------------------------------------------------------------------------------- the claims

function Test-Registration([string] $strategy) {
  Test-Claim 'the service runs, starts with the system, as LocalSystem, by a quoted path' {
    $service = Get-ServiceData
    Assert ($service.State -eq 'Running') "it is $($service.State)"
    Assert ($service.StartMode -eq 'Auto') "its start is $($service.StartMode)"
    Assert (-not $service.DelayedAutoStart) 'its start is delayed'
    Assert ($service.StartName -eq 'LocalSystem') "it runs as $($service.StartName)"
    $path = $service.PathName
    $option = if ($strategy -eq 'proxy') { ' -o' } else { '' }
    Assert ($path -match ('^"[^"]+"' + $option + '$')) "its path is: $path"
    $path
  }
  Test-Claim 'mofcomp accepts the MOF file, and WMI knows every class and the provider' {
    $file = Get-Shipped 'quillmon.mof'
    & "$env:windir\System32\wbem\mofcomp.exe" -check $file | Out-Null
    Assert ($LASTEXITCODE -eq 0) "mofcomp -check ends with $LASTEXITCODE"
    $names = @(Select-String -LiteralPath $file -Pattern '^class (\w+)' |
      ForEach-Object { $_.Matches[0].Groups[1].Value })
    Assert ($names.Count -gt 30) "the file has only $($names.Count) classes"
    foreach ($name in $names) { Get-CimClass -ClassName $name | Out-Null }
    $provider = @(Get-CimInstance __Win32Provider -Filter "Name='QuillmonService'")
    Assert ($provider.Count -eq 1) 'the provider is not registered'
    "$($names.Count) classes"
  }
  Test-Claim 'only administrators and the system may write where the program and its files lie' {
    $paths = @($folder, (Get-ServiceProgram), (Split-Path -Parent $configuration))
    $key = Get-Item 'HKLM:\SOFTWARE\Veltran\Veltran Kestrune' -ErrorAction SilentlyContinue
    if ($key) { $paths += Join-Path ([string]$key.GetValue('INSTALLDIR')) 'Log' }
    foreach ($path in $paths) { Test-Rights $path }
    $paths -join '; '
  }
}

function Test-Rights([string] $path) {
  $sid = [System.Security.Principal.SecurityIdentifier]
  # The system, administrators, Windows' own installer.
  $trusted = @('S-1-5-18', 'S-1-5-32-544',
    'S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464')
  $rights = [System.Security.AccessControl.FileSystemRights]
  $writing = [int]($rights::Write -bor $rights::Delete -bor $rights::DeleteSubdirectoriesAndFiles -bor
    $rights::ChangePermissions -bor $rights::TakeOwnership) -bor 0x50000000 # generic: all, write
  $acl = Get-Acl -LiteralPath $path
  $owner = $acl.GetOwner($sid).Value
  Assert ($trusted -contains $owner) "$path belongs to $owner"
  foreach ($rule in $acl.GetAccessRules($true, $true, $sid)) {
    $isHere = ([int]$rule.PropagationFlags -band 2) -eq 0 # 2: for what is made in it only
    $isAllowed = $rule.AccessControlType -eq 'Allow'
    $isWriting = ([int]$rule.FileSystemRights -band $writing) -ne 0
    if ($isHere -and $isAllowed -and $isWriting) {
      $who = $rule.IdentityReference.Value
      Assert ($trusted -contains $who) "$who may write to $path"
    }
  }
}

function Test-Reading {
  Test-Claim 'a list and a retrieval by key give the device' {
    Assert (Wait-ForDevices 60) 'no devices within 60 seconds'
    $ids = Get-DeviceId
    $scanner = Get-OneScanner
    Assert ($scanner.DeviceID -eq 'SCANNER1') 'the retrieval gives another device'
    "$(@($ids).Count) devices"
  }
  Test-Claim 'text beyond ASCII arrives whole' {
    $page = Get-AnsiCodePage
    $encoding = [System.Text.Encoding]::GetEncoding($page)
    $back = $encoding.GetString($encoding.GetBytes($model))
    if ($back -ne $model) { throw ($untried + "the code page is $page, which lacks the letter") }
    $found = (Get-OneScanner).ModelName
    Assert ($found -eq $model) "the model is: $found"
    "code page $page"
  }
  Test-Claim 'text beyond ASCII arrives whole where the code page is UTF-8' {
    $page = Get-AnsiCodePage
    if ($page -ne 65001) { throw ($untried + "this machine's code page is $page") }
    Assert ((Get-OneScanner).ModelName -eq $model) 'the model is another'
  }
  Test-Claim 'a subscriber sees a device come and go' { Test-Events }
  Test-Claim 'quillmonctl status finds nothing wrong' {
    $said = & (Get-Shipped 'quillmonctl.exe') status | Out-String
    Assert ($LASTEXITCODE -eq 0) "it ends with ${LASTEXITCODE}: $said"
  }
  Add-Observation 'what quillmonctl doctor says' {
    & (Get-Shipped 'quillmonctl.exe') doctor
  }
}

function Test-Module {
  Test-Claim 'no code is loaded from beside the program' {
    $program = Get-ServiceProgram
    $files = @((Get-Process -Id (Get-ServiceData).ProcessId).Modules |
      ForEach-Object { $_.FileName } | Where-Object { $_ -ne $program })
    $places = @($files | ForEach-Object { Split-Path -Parent $_ } | Group-Object |
      ForEach-Object { '{0} from {1}' -f $_.Count, $_.Name })
    $beside = @($files | Where-Object { $_ -like "$folder\*" })
    Assert ($beside.Count -eq 0) ($beside -join '; ')
    $places -join '; '
  }
}

function Test-StandardUser {
  Test-Claim 'a standard user lists and retrieves' {
    $output = Join-Path $env:windir 'Temp\quillmon-acceptance.txt'
    $password = 'Aa1!' + [guid]::NewGuid()
    $secret = ConvertTo-SecureString $password -AsPlainText -Force
    try {
      New-LocalUser -Name $userName -Password $secret | Out-Null
      Add-LocalGroupMember -SID 'S-1-5-32-545' -Member $userName
    } catch {
      throw ($untried + 'a local user cannot be made: ' + $_.Exception.Message)
    }
    $commands = @'
$ids = @(Get-CimInstance UPOS_Scanner | ForEach-Object { $_.DeviceID })
$named = @{ DeviceID = 'SCANNER1' }
$key = New-CimInstance -ClassName UPOS_Scanner -Property $named -Key DeviceID -ClientOnly
$one = Get-CimInstance -InputObject $key
'{0} lists {1}, retrieves {2}' -f [Environment]::UserName, ($ids -join ' '), $one.DeviceID
'@
    $encoded = [Convert]::ToBase64String([System.Text.Encoding]::Unicode.GetBytes($commands))
    $credential = New-Object System.Management.Automation.PSCredential ".\$userName", $secret
    $words = '-NoProfile', '-NonInteractive', '-EncodedCommand', $encoded
    try {
      $process = Start-Process -FilePath powershell.exe -ArgumentList $words -PassThru `
        -Credential $credential -WorkingDirectory $env:windir -RedirectStandardOutput $output
      if (-not $process.WaitForExit(120000)) {
        $process.Kill()
        throw 'no answer within two minutes'
      }
      $said = ([System.IO.File]::ReadAllText($output)).Trim()
      Assert ($said -eq "$userName lists SCANNER1 SCANNER2, retrieves SCANNER1") "it says: $said"
      $said
    } finally {
      Remove-LocalUser -Name $userName
      Remove-Item -LiteralPath $output -ErrorAction SilentlyContinue
    }
  }
}

# Whether devices and events come back by themselves is news; that a restart of the service brings
# them back is promised.
function Test-AfterWmi([string] $what) {
  Add-Observation "devices are listed again after $what" {
    $since = Get-Date
    if (Wait-ForDevices 60) {
      'yes, after {0:N0} s' -f ((Get-Date) - $since).TotalSeconds
    } else {
      'no, not within 60 s'
    }
  }
  Add-Observation "events arrive again after $what" { Get-EventsOfOneDevice }
  Test-Claim "a restart of the service brings devices and events back after $what" {
    Restart-Quillmon
    Test-Events
  }
}

function Test-WmiRestart {
  Test-Claim 'the service survives a restart of WMI' {
    $before = (Get-ServiceData).ProcessId
    $others = @((Get-Service winmgmt).DependentServices | Where-Object { $_.Status -eq 'Running' })
    Restart-Service winmgmt -Force
    foreach ($one in $others) { Start-Service $one.Name }
    Assert (Wait-Until 60 { (Get-ServiceData).State -eq 'Running' }) 'it does not run'
    Assert ((Get-ServiceData).ProcessId -eq $before) 'it is another process'
    "restarted with WMI: $(($others | ForEach-Object { $_.Name }) -join ' ')"
  }
  Test-AfterWmi 'a restart of WMI'
}

function Test-WmiKill {
  Test-Claim "the service survives the end of WMI's process" {
    $before = (Get-ServiceData).ProcessId
    $wmi = (Get-CimInstance Win32_Service -Filter "Name='winmgmt'").ProcessId
    $inIt = @(Get-CimInstance Win32_Service -Filter "ProcessId=$wmi" | ForEach-Object { $_.Name })
    if ($inIt.Count -gt 1) { throw ($untried + "that process also runs $($inIt -join ' ')") }
    $others = @((Get-Service winmgmt).DependentServices | Where-Object { $_.Status -eq 'Running' })
    Stop-Process -Id $wmi -Force
    Assert (Wait-Until 60 { Start-Service winmgmt; $true }) 'WMI does not start again'
    foreach ($one in $others) { Start-Service $one.Name }
    Assert (Wait-Until 60 { (Get-ServiceData).State -eq 'Running' }) 'it does not run'
    Assert ((Get-ServiceData).ProcessId -eq $before) 'it is another process'
  }
  Test-AfterWmi "the end of WMI's process"
}

function Test-Restarts {
  $script:handles = @()
  $script:counts = @()
  $script:twice = @()
  Test-Claim '20 restarts of the service, each followed by a list' {
    $slowest = 0
    for ($i = 0; $i -lt 20; $i++) {
      $since = Get-Date
      Restart-Quillmon
      $slowest = [Math]::Max($slowest, ((Get-Date) - $since).TotalSeconds)
      $ids = Get-DeviceId
      $script:twice += @($ids | Group-Object | Where-Object { $_.Count -gt 1 } |
        ForEach-Object { $_.Name })
      $script:handles += (Get-Process -Id (Get-ServiceData).ProcessId).HandleCount
      try { $script:counts += Get-Registrations } catch { $script:counts += -1 }
    }
    'the slowest took {0:N0} s' -f $slowest
  }
  Test-Claim 'no device is listed twice after a restart' {
    Assert ($script:handles.Count -gt 0) 'there was no restart'
    Assert ($script:twice.Count -eq 0) ($script:twice -join ' ')
  }
  Test-Claim 'registrations with WMI do not add up over restarts' {
    Get-Registrations | Out-Null
    Assert ($script:counts.Count -eq 20) "there were $($script:counts.Count) restarts"
    Assert ($script:counts[19] -le $script:counts[0]) "keys: $($script:counts -join ' ')"
    "keys: $($script:counts -join ' ')"
  }
  Test-Claim 'handles of the service do not add up over restarts' {
    Assert ($script:handles.Count -eq 20) "there were $($script:handles.Count) restarts"
    $limit = 1.2 * $script:handles[0]
    Assert ($script:handles[19] -le $limit) "handles: $($script:handles -join ' ')"
    "handles: $($script:handles -join ' ')"
  }
}

# Refused before the first step, and failing after the files have been written.
function Test-FailingInstallation {
  Test-Claim 'an installation that is refused leaves everything as it was' {
    $before = @(Get-Traces)
    $program = "$env:windir\System32\svchost.exe -k QuillmonAcceptance"
    New-Service -Name QuillmonServ -BinaryPathName $program -StartupType Disabled | Out-Null
    $script:foreignService = $true
    try {
      $code = Invoke-Msi '/i' 'refused' @('"{0}"' -f $Package)
      Assert ($code -eq 1603) "msiexec /i ends with $code although another QuillmonServ exists"
      $path = (Get-ServiceData).PathName
      Assert ($path -eq $program) "the other service is now: $path"
    } finally {
      Remove-ForeignService
    }
    $left = @(Compare-Object $before @(Get-Traces) | ForEach-Object { $_.InputObject })
    Assert ($left.Count -eq 0) "changed: $($left -join '; ')"
  }
  Test-Claim 'an installation that fails is undone' {
    $before = @(Get-Traces)
    Invoke-Mof 'class UPOS_Scanner { [key] string Foreign; };'
    $script:foreignClass = $true
    try {
      $code = Invoke-Msi '/i' 'failing' @('"{0}"' -f $Package)
      Assert ($code -eq 1603) "msiexec /i ends with $code although another UPOS_Scanner exists"
      $properties = (Get-CimClass -ClassName UPOS_Scanner).CimClassProperties.Name -join ' '
      Assert ($properties -eq 'Foreign') "the other class has now: $properties"
    } finally {
      Remove-ForeignClass
    }
    $left = @(Compare-Object $before @(Get-Traces) | ForEach-Object { $_.InputObject })
    Assert ($left.Count -eq 0) "changed: $($left -join '; ')"
  }
}

function Invoke-Mof([string] $text) {
  $file = Join-Path $place 'acceptance.mof'
  Write-Utf8 $file ('#pragma namespace("\\\\.\\root\\cimv2")' + "`r`n" + $text + "`r`n")
  & "$env:windir\System32\wbem\mofcomp.exe" $file | Out-Null
  $code = $LASTEXITCODE
  Remove-Item -LiteralPath $file
  Assert ($code -eq 0) "mofcomp ends with $code for: $text"
}

function Remove-ForeignClass {
  if (-not $script:foreignClass) { return }
  Invoke-Mof '#pragma deleteclass("UPOS_Scanner", NOFAIL)'
  $script:foreignClass = $false
}

function Remove-ForeignService {
  if (-not $script:foreignService) { return }
  & "$env:windir\System32\sc.exe" delete QuillmonServ | Out-Null
  $script:foreignService = $false
  $gone = Wait-Until 30 { -not (Get-Service QuillmonServ -ErrorAction SilentlyContinue) }
  Assert $gone 'the service of the test cannot be removed'
}

function Test-EventLogEntries {
  Test-Claim 'with EVENTLOG=1 device events are in the Application log' {
    $since = Get-Date
    Test-Events | Out-Null
    $found = Wait-Until 30 {
      $query = @{ LogName = 'Application'; StartTime = $since }
      @(Get-WinEvent -FilterHashtable $query | Where-Object { $_.ToXml() -like '*MICR1*' }).Count -gt 0
    }
    Assert $found 'no entry names the device'
  }
}

function Test-Repair {
  Test-Claim 'a repair puts back a file that is missing' {
    $file = Get-Shipped 'quillmon.mof'
    Remove-Item -LiteralPath $file
    Install-Package $Package 'repair' @('REINSTALL=ALL')
    Assert (Test-Path -LiteralPath $file) 'the file is still missing'
    Assert (Wait-ForDevices 60) 'no devices within 60 seconds'
  }
}

function Test-Upgrade {
  Test-Claim 'an upgrade from the last version keeps what was edited' {
    if (-not $Previous) { throw ($untried + 'no -Previous was given') }
    Install-Package $Previous 'previous' @()
    $old = @(Get-Product)[0].Version
    $process = (Get-ServiceData).ProcessId
    Add-Content -LiteralPath $configuration -Encoding Ascii -Value '; edited'
    $script:isEdited = $true
    Install-Package $Package 'upgrade' @()
    $now = @(Get-Product)
    Assert ($now.Count -eq 1) "Windows lists $($now.Count) products"
    $service = Get-ServiceData
    Assert ($service.State -eq 'Running' -and $service.ProcessId -ne $process) 'no new process runs'
    Assert (Select-String -LiteralPath $configuration -Pattern '; edited' -Quiet) 'the edit is lost'
    Start-Till 'adapter'
    try { Assert (Wait-ForDevices 60) 'no devices within 60 seconds' } finally { Stop-Till }
    "from $old to $($now[0].Version)"
  }
  Test-Removal 'upgraded'
}

function Test-Removal([string] $name) {
  if (@(Get-Product).Count -eq 0) { return }
  Test-Claim 'a removal takes everything that was not edited' {
    Stop-Till
    Remove-Package "remove-$name"
    Remove-OwnFiles
    $left = @(Compare-Object $script:before @(Get-Traces) | ForEach-Object { $_.InputObject })
    Assert ($left.Count -eq 0) "changed: $($left -join '; ')"
  }
}

# What a removal leaves: the file that was edited, and the device server's folders.
function Remove-OwnFiles {
  if ($script:isEdited -and (Test-Path -LiteralPath $configuration)) {
    Remove-Item -LiteralPath $configuration
  }
  if ($script:before -contains ('file ' + $posFolder)) { return }
  foreach ($path in "$posFolder\JavaPOS\Config", "$posFolder\JavaPOS", $posFolder) {
    if ((Test-Path -LiteralPath $path) -and @(Get-ChildItem -LiteralPath $path -Force).Count -eq 0) {
      Remove-Item -LiteralPath $path
    }
  }
}

function Test-Strategy([string] $strategy) {
  $script:group = $strategy
  $properties = @("STRATEGY=$strategy")
  if ($strategy -eq 'proxy') { $properties += 'EVENTLOG=1' }
  Test-Claim 'the package installs silently' { Install-Package $Package "install-$strategy" $properties }
  if (@(Get-Product).Count -eq 0) { return }
  Test-Registration $strategy
  Test-Claim 'a simulated till takes the place of the device server' { Start-Till $strategy }
  if ($null -ne $script:till) {
    Test-Reading
    Test-Module
    Test-StandardUser
    Test-WmiRestart
    Test-WmiKill
    Test-Restarts
    if ($strategy -eq 'proxy') { Test-EventLogEntries } else { Test-Repair }
  }
  Test-Removal $strategy
}

function Test-Restarted($state) {
  $script:group = 'restart'
  Test-Claim 'Windows was restarted' {
    $boot = Get-BootTime
    Assert ($boot.Ticks -gt [long]$state.ended) "it has run since $boot"
    "at $boot"
  }
  Test-Claim 'the service starts with Windows by itself' {
    Assert (Wait-Until 300 { (Get-ServiceData).State -eq 'Running' }) 'it does not'
  }
  Add-Observation 'how long after the start of Windows the service was started' {
    $process = Get-Process -Id (Get-ServiceData).ProcessId
    '{0:N0} s' -f ($process.StartTime - (Get-BootTime)).TotalSeconds
  }
  Test-Claim 'a simulated till takes the place of the device server' { Start-Till 'adapter' }
  if ($null -ne $script:till) { Test-Reading }
  Test-Removal 'restart'
}

# ------------------------------------------------------------------------------------------- run

function Save-Report {
  $machine = [ordered]@{
    caption = $script:system.Caption
    version = $script:system.Version
    codePage = Get-AnsiCodePage
    powershell = $PSVersionTable.PSVersion.ToString()
  }
  $report = [ordered]@{
    package = Split-Path -Leaf $Package
    sha256 = (Get-FileHash -LiteralPath $Package -Algorithm SHA256).Hash
    machine = $machine
    ended = (Get-Date).ToString('o')
    verdicts = @($script:verdicts)
  }
  $columns = 'group', 'verdict', 'claim', 'detail'
  $table = $script:verdicts | Format-Table -Property $columns -AutoSize -Wrap | Out-String -Width 150
  $title = "$($report.package) on $($machine.caption) $($machine.version)"
  Write-Utf8 (Join-Path $place 'acceptance-report.txt') ($title + "`r`n" + $table)
  Write-Utf8 (Join-Path $place 'acceptance-report.json') ($report | ConvertTo-Json -Depth 5)
  Write-Host $title
  Write-Host $table
}

$principal = New-Object System.Security.Principal.WindowsPrincipal (
  [System.Security.Principal.WindowsIdentity]::GetCurrent())
$administrator = [System.Security.Principal.WindowsBuiltInRole]::Administrator
if (-not $principal.IsInRole($administrator) -or -not [Environment]::Is64BitProcess) {
  Write-Host 'Run this in an elevated 64-bit Windows PowerShell.'
  exit 2
}
$script:system = Get-CimInstance Win32_OperatingSystem
$state = $null
if ($AfterRestart) {
  if (-not (Test-Path -LiteralPath $stateFile)) {
    Write-Host 'There is no first half: run it with -BeforeRestart.'
    exit 2
  }
  $state = [System.IO.File]::ReadAllText($stateFile) | ConvertFrom-Json
  $script:before = @($state.before)
  $script:verdicts = @($state.verdicts)
} else {
  $script:before = @(Get-Traces)
  $known = @($script:before | Where-Object { $_ -match 'Quillmon|^class UPOS_' })
  if ($known.Count -gt 0) {
    Write-Host "There is a Quillmon on this machine: $($known -join '; ')"
    exit 2
  }
}

$isLeft = $false
try {
  if ($AfterRestart) {
    Test-Restarted $state
    Remove-Item -LiteralPath $stateFile
  } else {
    $script:group = 'failure'
    Test-FailingInstallation
    Test-Strategy 'adapter'
    Test-Strategy 'proxy'
    $script:group = 'upgrade'
    Test-Upgrade
    if ($BeforeRestart) {
      $script:group = 'restart'
      Test-Claim 'the package installs silently' { Install-Package $Package 'install-restart' @() }
      $isLeft = @(Get-Product).Count -gt 0
    }
  }
} finally {
  Stop-Till
  if (-not $isLeft) {
    $script:group = 'end'
    Test-Claim 'the machine is as it was' {
      Remove-ForeignService
      Remove-ForeignClass
      Remove-Package 'remove-end'
      $script:isEdited = $true
      Remove-OwnFiles
      if (Get-LocalUser -Name $userName -ErrorAction SilentlyContinue) {
        Remove-LocalUser -Name $userName
      }
      $left = @(Compare-Object $script:before @(Get-Traces) | ForEach-Object { $_.InputObject })
      Assert ($left.Count -eq 0) "changed: $($left -join '; ')"
    }
  }
  Remove-Item -LiteralPath (Join-Path $place 'acceptance-till.xml') -ErrorAction SilentlyContinue
  Save-Report
}

if ($isLeft) {
  $half = [ordered]@{
    ended = (Get-Date).Ticks.ToString(); before = $script:before; verdicts = $script:verdicts
  }
  Write-Utf8 $stateFile ($half | ConvertTo-Json -Depth 5)
  Write-Host 'Restart Windows, then run this again with -AfterRestart.'
}
if (@($script:verdicts | Where-Object { $_.verdict -eq 'failed' }).Count -gt 0) { exit 1 }
exit 0
