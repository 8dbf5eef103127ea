; Installs the Windows programs for all users of a machine, and takes them off again.
;
;   /S   without a window
;
; Exit codes: 0 done, 1 called off, 2 failed, 1618 the programs are in use (Windows Installer's number for
; "another installation is in progress", on which deployment tools try again later).
;
; The folder is not the user's choice: the program loads libraries from its own folder, so nobody but
; administrators may write there, which "Program Files" sees to.
;
; packaging/windows.py defines VERSION, YEAR, OUT, LICENCE, KIBIBYTES, perhaps SIGN, and FILES: a file with the
; macros InstallFiles, DeleteFiles and RemoveFolders, made from what the ZIP holds.

Unicode true
Target amd64-unicode
SetCompressor /SOLID lzma
; Not the moment at which this is compiled: the same files give the same installer.
SetDateSave on

!include LogicLib.nsh
!include FileFunc.nsh
!include "${FILES}"

!define NAME "KydLogUploader"
!define PUBLISHER "The KydLogUploader authors"
!define PARENT "$PROGRAMFILES64\Veltrane"
!define FOLDER "${PARENT}\KydLogUploader"
!define ENTRY "Software\Microsoft\Windows\CurrentVersion\Uninstall\KydLogUploader"
; The name by which the program makes sure that it runs once.
!define MUTEX "Global\VeltraneKydLogUploaderMutexString"

; For how long the silent uninstaller tries to remove itself.
!define REMOVAL_SECONDS 30

!define FAILED 2
!define IN_USE 1618
!define ERROR_ALREADY_EXISTS 183

Name "${NAME} ${VERSION}"
OutFile "${OUT}"
InstallDir "${FOLDER}"
RequestExecutionLevel admin
ManifestSupportedOS all
ManifestDPIAware true
XPStyle on
ShowInstDetails nevershow
ShowUninstDetails nevershow
BrandingText " "

VIProductVersion "${VERSION}.0"
VIFileVersion "${VERSION}.0"
VIAddVersionKey /LANG=1033 "CompanyName" "${PUBLISHER}"
VIAddVersionKey /LANG=1033 "FileDescription" "Installs ${NAME}"
VIAddVersionKey /LANG=1033 "FileVersion" "${VERSION}"
VIAddVersionKey /LANG=1033 "InternalName" "${NAME}-setup"
VIAddVersionKey /LANG=1033 "LegalCopyright" "Copyright (c) ${YEAR} ${PUBLISHER}. MIT License."
VIAddVersionKey /LANG=1033 "OriginalFilename" "${NAME}-${VERSION}-windows-x64-setup.exe"
VIAddVersionKey /LANG=1033 "ProductName" "${NAME}"
VIAddVersionKey /LANG=1033 "ProductVersion" "${VERSION}"

!ifdef SIGN
  ; The uninstaller is made here, so here is the only chance to sign it.
  !uninstfinalize '${SIGN} "%1"' = 0
!endif

Page license
Page instfiles
UninstPage uninstConfirm
UninstPage instfiles
LicenseData "${LICENCE}"

!macro Stop CODE TEXT
  MessageBox MB_OK|MB_ICONSTOP "${TEXT}" /SD IDOK
  SetErrorLevel ${CODE}
  Quit
!macroend

; Takes the program's own name. Whoever has it first wins: a running program keeps this out, and a program
; that is started meanwhile ends at once, as beside another one of its kind. The name is free again when this
; process ends. No answer but "it is ours now" counts as free.
!macro HoldName
  System::Call 'kernel32::CreateMutexW(p 0, i 0, w "${MUTEX}") p .r0 ?e'
  Pop $1
  ${If} $0 == 0
  ${OrIf} $1 == ${ERROR_ALREADY_EXISTS}
    !insertmacro Stop ${IN_USE} "${NAME} is running. Wait until it has ended, or end its task, and try again."
  ${EndIf}
!macroend

; A program that runs cannot be opened for writing.
!macro RefuseWhenInUse FILE
  ${If} ${FileExists} "${FILE}"
    ClearErrors
    FileOpen $0 "${FILE}" a
    ${If} ${Errors}
      !insertmacro Stop ${IN_USE} "${FILE} is in use. Wait until it has ended, and try again."
    ${EndIf}
    FileClose $0
  ${EndIf}
!macroend

Function .onInit
  SetRegView 64
  SetShellVarContext all
  ; Also against /D on the command line.
  StrCpy $INSTDIR "${FOLDER}"
  !insertmacro HoldName
  !insertmacro RefuseWhenInUse "$INSTDIR\KydLogUploader.exe"
  !insertmacro RefuseWhenInUse "$INSTDIR\KydUploadStatus.exe"
FunctionEnd

Section
  ; A silent uninstaller removes itself a moment after it has ended. It must not take the new one for itself.
  ReadRegStr $0 HKLM "${ENTRY}" "UninstallString"
  ${If} $0 == ""
    ${For} $1 1 ${REMOVAL_SECONDS}
      ${IfNot} ${FileExists} "$INSTDIR\Uninstall.exe"
        ${ExitFor}
      ${EndIf}
      Sleep 1000
    ${Next}
  ${EndIf}

  ; What an older version has put here and this one does not have would stay for ever.
  ${If} ${FileExists} "$INSTDIR\Uninstall.exe"
    ExecWait '"$INSTDIR\Uninstall.exe" /S /REPLACED _?=$INSTDIR' $0
    ${If} $0 != 0
      !insertmacro Stop ${FAILED} "The version that is installed could not be removed."
    ${EndIf}
  ${EndIf}

  ClearErrors
  !insertmacro InstallFiles
  SetOutPath "$INSTDIR"
  WriteUninstaller "$INSTDIR\Uninstall.exe"
  WriteRegStr HKLM "${ENTRY}" "DisplayName" "${NAME}"
  WriteRegStr HKLM "${ENTRY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKLM "${ENTRY}" "Publisher" "${PUBLISHER}"
  WriteRegStr HKLM "${ENTRY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKLM "${ENTRY}" "DisplayIcon" "$INSTDIR\Uninstall.exe"
  WriteRegStr HKLM "${ENTRY}" "UninstallString" '"$INSTDIR\Uninstall.exe"'
  ; Run where it lies, the uninstaller can be waited for and its exit code is true.
  WriteRegStr HKLM "${ENTRY}" "QuietUninstallString" '"$INSTDIR\Uninstall.exe" /S _?=$INSTDIR'
  WriteRegDWORD HKLM "${ENTRY}" "NoModify" 1
  WriteRegDWORD HKLM "${ENTRY}" "NoRepair" 1
  WriteRegDWORD HKLM "${ENTRY}" "EstimatedSize" ${KIBIBYTES}
  ${If} ${Errors}
    !insertmacro Stop ${FAILED} "Not everything could be written to $INSTDIR."
  ${EndIf}
SectionEnd

Var Replaced

Function un.onInit
  SetRegView 64
  SetShellVarContext all
  StrCpy $INSTDIR "${FOLDER}"
  ${GetParameters} $0
  ClearErrors
  ${GetOptions} $0 "/REPLACED" $1
  ${If} ${Errors}
    !insertmacro HoldName
    !insertmacro RefuseWhenInUse "$INSTDIR\KydLogUploader.exe"
    !insertmacro RefuseWhenInUse "$INSTDIR\KydUploadStatus.exe"
  ${Else}
    ; The installer that started this holds the name and has looked.
    StrCpy $Replaced 1
  ${EndIf}
FunctionEnd

; Removes what the installer brought. Libraries and keys that administrators have put into the folder stay, and
; with them the folder; logs, tasks and settings are not the installer's.
Section Uninstall
  SetOutPath "$TEMP"
  ClearErrors
  !insertmacro DeleteFiles
  ${If} ${Errors}
    !insertmacro Stop ${FAILED} "Not everything in $INSTDIR could be removed."
  ${EndIf}
  !insertmacro RemoveFolders
  DeleteRegKey HKLM "${ENTRY}"
  ${If} $Replaced == 1
    Return
  ${EndIf}

  ClearErrors
  Delete "$INSTDIR\Uninstall.exe"
  ${If} ${Errors}
  ${OrIf} $EXEDIR == $INSTDIR
    ; It runs there itself: it goes as soon as it has ended. Not at the next start of the machine, which could
    ; take away the uninstaller of a version that has been installed meanwhile.
    StrCpy $0 '"$INSTDIR\Uninstall.exe"'
    StrCpy $1 'del /f /q $0 & if not exist $0 (rmdir "$INSTDIR" & rmdir "${PARENT}" & exit)'
    ExecShell "" "$SYSDIR\cmd.exe" \
      '/d /q /c for /l %i in (1,1,${REMOVAL_SECONDS}) do (ping -n 2 127.0.0.1 >nul & $1)' SW_HIDE
    Return
  ${EndIf}
  RMDir "$INSTDIR"
  ; The product's folder, if nothing else of the product is there.
  RMDir "${PARENT}"
SectionEnd
