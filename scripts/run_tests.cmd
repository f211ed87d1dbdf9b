@echo off
rem Usage: run_tests.cmd [PROGRAM...]
rem
rem Of a bundle of tests, on Windows: runs every test program in the folder bin, or those named. A
rem line tells how each went, the folder logs everything; a run of all empties it first. The exit
rem status is 0 when nothing failed.
setlocal
set "here=%~dp0"
set "logs=%~dp0logs"
set passed=0
set failed=0
if "%~1"=="" if exist "%logs%" rmdir /s /q "%logs%"
if not exist "%logs%" mkdir "%logs%"
if exist "%logs%\failed.txt" del "%logs%\failed.txt"
if not exist "%logs%" echo run_tests.cmd: no folder can be made here: move this one& exit /b 1
ver >"%logs%\system.txt"
>>"%logs%\system.txt" echo %PROCESSOR_IDENTIFIER%, %NUMBER_OF_PROCESSORS% processors
chcp >"%logs%\code_page.txt"
pushd "%here%"
if not "%~1"=="" goto :named
for /f "usebackq tokens=*" %%p in ("%here%programs.txt") do call :run %%p
goto :total
:named
for %%p in (%*) do call :run %%p
:total
popd
echo %passed% passed, %failed% failed
>"%logs%\total.txt" echo %passed% passed, %failed% failed
if not %failed%==0 exit /b 1
if %passed%==0 exit /b 1
exit /b 0

rem A program has a log of its own: what it leaves running may hold that open. One that could not be
rem started has none.
:run
set "log=%logs%\%1.log"
set status=none
if not exist "%here%bin\%1.exe" goto :missing
"%here%bin\%1.exe" %2 %3 <nul >"%log%" 2>&1
if exist "%log%" set status=%ERRORLEVEL%
if %status%==0 goto :passed
set /a failed+=1
echo %*: FAILED, exit status %status%: see logs\%1.log
>>"%logs%\failed.txt" echo %*: exit status %status%
exit /b
:passed
set /a passed+=1
echo %*: passed
exit /b
:missing
set /a failed+=1
echo %*: FAILED, no such program in bin
>>"%logs%\failed.txt" echo %*: no such program in bin
exit /b
