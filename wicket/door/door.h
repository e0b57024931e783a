// The chief header of the Wicket door library: an application includes this one header to get
// the caller's session, its state and hooks, output, keys and dialogues.
#pragma once

#include "doordefaults.h"
#include "doorend.h"
#include "doorinput.h"
#include "doorinputline.h"
#include "dooroutput.h"
#include "doorstartup.h"
#include "doorstate.h"
